#include "serve/http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gnutls/gnutls.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "core/decimal.h"
#include "serve/connection_watch.h"

namespace zelk::cli {

// What the callbacks of one daemon share: the server, and this daemon's TLS settings, whose PEM
// texts MHD keeps pointers to.
struct DaemonContext {
  HttpServer* server = nullptr;
  bool tls = false;
  ClientAuth clientAuth = ClientAuth::kNone;
  std::string certPem, keyPem, clientCaPem, priorities;
};

namespace {

constexpr char kText[] = "text/plain; charset=utf-8";

// MHD says why a daemon cannot start only through its logger; outside start, its messages (one
// per refused connection, say) would only flood stderr.
thread_local std::string* startMessages = nullptr;

void logMessage(void*, const char* format, va_list args) {
  if (startMessages == nullptr || !startMessages->empty()) return;
  char line[256];
  vsnprintf(line, sizeof(line), format, args);
  *startMessages = line;
  while (!startMessages->empty() && startMessages->back() == '\n') startMessages->pop_back();
}

// What one request has read of its body; freed when MHD says the request is done.
struct Request {
  uint64_t bodyBytes = 0;
  bool answered = false;
};

MHD_Result answer(MHD_Connection* connection, Request* request, unsigned status,
                  const char* contentType, std::string body, const char* allow = nullptr) {
  request->answered = true;
  auto* text = new std::string(std::move(body));
  MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
      text->size(), text->data(), [](void* owned) { delete static_cast<std::string*>(owned); },
      text);
  if (response == nullptr) {
    delete text;
    return MHD_NO;
  }
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
  if (allow != nullptr) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
  const MHD_Result queued = MHD_queue_response(connection, status, response);
  MHD_destroy_response(response);
  return queued;
}

// Whether the request has a body, and the length it declares (0 for one in chunks, which counts
// as too long only once its chunks exceed the limit).
bool hasBody(MHD_Connection* connection, uint64_t* declared) {
  const char* length =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (length != nullptr) {
    // MHD refuses a malformed length itself.
    if (!com::zelkora::parseDecimal(length, declared, UINT64_MAX)) *declared = UINT64_MAX;
    return *declared > 0;
  }
  *declared = 0;
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND,
                                     MHD_HTTP_HEADER_TRANSFER_ENCODING) != nullptr;
}

// The client certificate that the configuration asks for: "" when it passes, else why not.
std::string clientCertificateProblem(const DaemonContext& context, MHD_Connection* connection) {
  const ClientAuth mode = context.clientAuth;
  if (!context.tls || mode == ClientAuth::kNone || mode == ClientAuth::kRequest) return "";
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
  if (info == nullptr || info->tls_session == nullptr) return "no TLS session";
  auto* session = static_cast<gnutls_session_t>(info->tls_session);
  unsigned int certificates = 0;
  const bool given =
      gnutls_certificate_get_peers(session, &certificates) != nullptr && certificates > 0;
  if (!given) {
    return mode == ClientAuth::kVerifyIfGiven ? "" : "a client certificate is required";
  }
  if (mode == ClientAuth::kRequireAny) return "";
  unsigned int status = 0;
  if (gnutls_certificate_verify_peers2(session, &status) != GNUTLS_E_SUCCESS || status != 0) {
    return "the client certificate is not signed by the client CA";
  }
  return "";
}

// Sets `*refused` and queues the answer when the request lacks the client certificate or the
// credentials that the configuration asks for; MHD's verdict on that queueing.
MHD_Result refuse(MHD_Connection* connection, Request* request, bool* refused,
                  const DaemonContext& context) {
  *refused = true;
  if (std::string problem = clientCertificateProblem(context, connection); !problem.empty()) {
    return answer(connection, request, MHD_HTTP_FORBIDDEN, kText, problem + "\n");
  }
  const std::shared_ptr<const BasicAuth> auth = context.server->auth();
  if (!auth->empty()) {
    char* password = nullptr;
    char* user = MHD_basic_auth_get_username_password(connection, &password);
    const bool passed = user != nullptr && password != nullptr && auth->check(user, password);
    if (user != nullptr) MHD_free(user);
    if (password != nullptr) MHD_free(password);
    if (!passed) {
      // The same answer for an unknown user and a wrong password.
      request->answered = true;
      static constexpr char kBody[] = "unauthorized\n";
      MHD_Response* response = MHD_create_response_from_buffer(
          sizeof(kBody) - 1, const_cast<char*>(kBody), MHD_RESPMEM_PERSISTENT);
      if (response == nullptr) return MHD_NO;
      MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, kText);
      const MHD_Result queued =
          MHD_queue_basic_auth_fail_response(connection, "zelkcputime", response);
      MHD_destroy_response(response);
      return queued;
    }
  }
  *refused = false;
  return MHD_YES;
}

MHD_Result onRequest(void* data, MHD_Connection* connection, const char* url, const char* method,
                     const char*, const char*, size_t* uploadSize, void** state) {
  const auto* context = static_cast<const DaemonContext*>(data);
  HttpServer* server = context->server;
  auto* request = static_cast<Request*>(*state);
  if (request == nullptr) {
    server->watch().requestStarted(connection);
    request = new Request;
    *state = request;
    bool refused = false;
    if (const MHD_Result result = refuse(connection, request, &refused, *context); refused) {
      return result;
    }
    const std::string path = url;
    if (path != "/" && path != "/metrics") {
      return answer(connection, request, MHD_HTTP_NOT_FOUND, kText, "not found\n");
    }
    const std::string verb = method;
    if (verb != "GET" && verb != "HEAD") {
      return answer(connection, request, MHD_HTTP_METHOD_NOT_ALLOWED, kText, "only GET and HEAD\n",
                    "GET, HEAD");
    }
    uint64_t declared = 0;
    if (hasBody(connection, &declared)) {
      if (declared > server->limits().maxBodyBytes) {
        return answer(connection, request, MHD_HTTP_CONTENT_TOO_LARGE, kText,
                      "request body too large\n");
      }
      return MHD_YES;  // read it first
    }
  } else if (*uploadSize > 0) {
    // Read and dropped; a body in chunks that outgrows the limit ends the connection.
    request->bodyBytes += *uploadSize;
    *uploadSize = 0;
    return request->answered || request->bodyBytes <= server->limits().maxBodyBytes ? MHD_YES
                                                                                    : MHD_NO;
  }
  if (request->answered) return MHD_YES;
  if (std::strcmp(url, "/") == 0) {
    return answer(connection, request, MHD_HTTP_OK, kText,
                  "zelkcputime serve: CPU time per frequency, per process; metrics at /metrics\n");
  }
  const char* accept =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
  HttpResponse response = server->handler()(accept != nullptr ? accept : "");
  // MHD sends no body for HEAD, with the Content-Length of this one.
  return answer(connection, request, response.status, response.contentType.c_str(),
                std::move(response.body));
}

void onCompleted(void* data, MHD_Connection* connection, void** state, MHD_RequestTerminationCode) {
  delete static_cast<Request*>(*state);
  *state = nullptr;
  static_cast<DaemonContext*>(data)->server->watch().requestEnded(connection);
}

void onConnection(void* data, MHD_Connection* connection, void**,
                  MHD_ConnectionNotificationCode code) {
  const auto* context = static_cast<const DaemonContext*>(data);
  ConnectionWatch& watch = context->server->watch();
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info != nullptr) watch.opened(connection, info->connect_fd, !context->tls);
  } else {
    watch.closed(connection);
  }
}

// The listening socket is this server's own, so that its errors are told exactly and so that
// the descriptor outlives any one daemon.
std::string listenOn(const ListenAddress& address, android::base::unique_fd* socketFd,
                     uint16_t* port) {
  const std::string prefix = "cannot listen on " + address.text() + ": ";
  android::base::unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd < 0) return prefix + strerror(errno);
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
    return prefix + strerror(errno);
  }
  sockaddr_in bound = {};
  bound.sin_family = AF_INET;
  bound.sin_port = htons(address.port);
  if (inet_pton(AF_INET, address.host.c_str(), &bound.sin_addr) != 1) {
    return prefix + "not an IPv4 address";
  }
  socklen_t length = sizeof(bound);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&bound), sizeof(bound)) != 0 ||
      listen(fd, SOMAXCONN) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    return prefix + strerror(errno);
  }
  *port = ntohs(bound.sin_port);
  *socketFd = std::move(fd);
  return "";
}

MHD_OptionItem option(MHD_OPTION name, intptr_t value, void* pointer = nullptr) {
  return MHD_OptionItem{name, value, pointer};
}

gnutls_datum_t datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
          static_cast<unsigned int>(text.size())};
}

// What MHD will do with the TLS settings, done first: a daemon that fails to start takes its
// listening descriptor with it. "" or why not.
std::string checkTls(const DaemonContext& context) {
  gnutls_certificate_credentials_t credentials = nullptr;
  if (gnutls_certificate_allocate_credentials(&credentials) != GNUTLS_E_SUCCESS) {
    return "GnuTLS cannot allocate credentials";
  }
  std::string error;
  const gnutls_datum_t cert = datum(context.certPem), key = datum(context.keyPem);
  if (int code = gnutls_certificate_set_x509_key_mem(credentials, &cert, &key, GNUTLS_X509_FMT_PEM);
      code < 0) {
    error = std::string("the certificate and key: ") + gnutls_strerror(code);
  } else if (!context.clientCaPem.empty()) {
    const gnutls_datum_t ca = datum(context.clientCaPem);
    if (int count = gnutls_certificate_set_x509_trust_mem(credentials, &ca, GNUTLS_X509_FMT_PEM);
        count <= 0) {
      error =
          std::string("the client CA: ") + (count < 0 ? gnutls_strerror(count) : "no certificate");
    }
  }
  gnutls_certificate_free_credentials(credentials);
  gnutls_priority_t priorities = nullptr;
  if (error.empty() &&
      gnutls_priority_init(&priorities, context.priorities.c_str(), nullptr) != GNUTLS_E_SUCCESS) {
    error = "GnuTLS refuses the priorities " + context.priorities;
  }
  if (priorities != nullptr) gnutls_priority_deinit(priorities);
  return error;
}

// GnuTLS's priorities for the versions from `min` to `max`.
std::string tlsPriorities(TlsVersion min, TlsVersion max) {
  std::string priorities = "NORMAL:-VERS-ALL";
  if (max == TlsVersion::kTls13) priorities += ":+VERS-TLS1.3";
  if (min == TlsVersion::kTls12) priorities += ":+VERS-TLS1.2";
  return priorities;
}

}  // namespace

std::string parseListen(const std::string& text, ListenAddress* address) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos)
    return "--listen takes ADDR:PORT, such as " + std::string(kDefaultListen);
  const std::string host = text.substr(0, colon);
  in_addr parsed{};
  if (inet_pton(AF_INET, host.c_str(), &parsed) != 1) {
    return "--listen takes an IPv4 address, such as 127.0.0.1 (not \"" + host + "\")";
  }
  uint32_t port = 0;
  if (!com::zelkora::parseDecimal(text.substr(colon + 1), &port, 65535u) || port == 0) {
    return "--listen: port out of range (1 to 65535): " + text.substr(colon + 1);
  }
  address->host = host;
  address->port = static_cast<uint16_t>(port);
  return "";
}

HttpServer::HttpServer() = default;

HttpServer::~HttpServer() { stop(); }

std::string HttpServer::start(const ListenAddress& address, MetricsHandler handler,
                              const HttpLimits& limits, const WebConfig& web) {
  if (std::string error = listenOn(address, &socket_, &port_); !error.empty()) return error;
  handler_ = std::move(handler);
  limits_ = limits;
  watch_ = std::make_unique<ConnectionWatch>(limits.headerTimeout, limits.maxConnections);
  std::atomic_store(&auth_, std::make_shared<const BasicAuth>(web.basicAuthUsers));
  if (std::string error = startDaemon(web); !error.empty()) {
    socket_.reset();
    watch_.reset();
    socket_.reset();
    port_ = 0;
    return "cannot serve on " + address.text() + ": " + error;
  }
  return "";
}

std::string HttpServer::startDaemon(const WebConfig& web) {
  auto context = std::make_unique<DaemonContext>();
  context->server = this;
  context->tls = web.tls.has_value();
  // MHD's own limit is a backstop above the watch's, which makes room before MHD would stop
  // accepting; a few slots cover the connections cut but not yet closed.
  const unsigned mhdLimit = limits_.maxConnections + 16 * limits_.threads;
  std::vector<MHD_OptionItem> options = {
      option(MHD_OPTION_LISTEN_SOCKET, socket_.get()),
      option(MHD_OPTION_CONNECTION_LIMIT, mhdLimit),
      option(MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(limits_.idleTimeout.count())),
      option(MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(limits_.connectionMemory)),
      option(MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&onConnection),
             context.get()),
      option(MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&onCompleted), context.get()),
      option(MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&logMessage), nullptr),
  };
  if (limits_.threads > 1) options.push_back(option(MHD_OPTION_THREAD_POOL_SIZE, limits_.threads));
  // MHD_USE_ITC: quiescing, so that a reload's old daemon stops accepting at once.
  // MHD_USE_TURBO: MHD no longer shuts a connection down before telling it closed, so that the
  // watch can still answer one whose request line MHD could not read.
  unsigned int flags =
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC | MHD_USE_TURBO | MHD_USE_ERROR_LOG;
  if (web.tls) {
    const TlsConfig& tls = *web.tls;
    flags |= MHD_USE_TLS;
    context->clientAuth = tls.clientAuth;
    context->certPem = tls.certPem;
    context->keyPem = tls.keyPem;
    context->clientCaPem = tls.clientCaPem;
    context->priorities = tlsPriorities(tls.minVersion, tls.maxVersion);
    options.push_back(option(MHD_OPTION_HTTPS_MEM_CERT, 0, context->certPem.data()));
    options.push_back(option(MHD_OPTION_HTTPS_MEM_KEY, 0, context->keyPem.data()));
    options.push_back(option(MHD_OPTION_HTTPS_PRIORITIES, 0, context->priorities.data()));
    // MHD asks clients for a certificate only when it has a trust list.
    if (tls.clientAuth != ClientAuth::kNone && !context->clientCaPem.empty()) {
      options.push_back(option(MHD_OPTION_HTTPS_MEM_TRUST, 0, context->clientCaPem.data()));
    }
  }
  if (context->tls) {
    if (std::string error = checkTls(*context); !error.empty()) return error;
  }
  // Each daemon has a descriptor of its own for the socket, which it closes when it stops (or
  // fails to start).
  const int listening = fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0);
  if (listening < 0) return std::string("cannot duplicate the socket: ") + strerror(errno);
  options.front() = option(MHD_OPTION_LISTEN_SOCKET, listening);
  options.push_back(option(MHD_OPTION_END, 0));
  std::string message;
  startMessages = &message;
  MHD_Daemon* daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &onRequest, context.get(),
                                        MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
  startMessages = nullptr;
  if (daemon == nullptr) return message.empty() ? "libmicrohttpd did not start" : message;
  if (daemon_ != nullptr) {
    // Both accept for a moment, on one socket; then only the new one.
    retireLater(daemon_, std::move(context_));
  }
  daemon_ = daemon;
  context_ = std::move(context);
  tls_ = web.tls;
  return "";
}

// A daemon that no longer accepts, and the thread that stops it once it holds no connection.
struct HttpServer::Retiring {
  MHD_Daemon* daemon = nullptr;
  std::unique_ptr<DaemonContext> context;
  android::base::unique_fd listening;
  std::atomic<bool> now{false};   // stop it at once
  std::atomic<bool> done{false};  // stopped
  std::thread thread;
};

void HttpServer::retireLater(MHD_Daemon* daemon, std::unique_ptr<DaemonContext> context) {
  auto retiring = std::make_unique<Retiring>();
  retiring->daemon = daemon;
  retiring->context = std::move(context);
  // Quiesced, MHD no longer accepts and leaves the descriptor to the caller.
  retiring->listening.reset(MHD_quiesce_daemon(daemon));
  Retiring* raw = retiring.get();
  // Its connections end at the header deadline or the idle timeout at the latest, unless an
  // answer is still being sent; past both and a margin, it stops anyway.
  const auto giveUp = std::chrono::steady_clock::now() + limits_.headerTimeout +
                      limits_.idleTimeout + std::chrono::seconds(10);
  raw->thread = std::thread([raw, giveUp] {
    while (!raw->now && std::chrono::steady_clock::now() < giveUp) {
      const MHD_DaemonInfo* info =
          MHD_get_daemon_info(raw->daemon, MHD_DAEMON_INFO_CURRENT_CONNECTIONS);
      if (info != nullptr && info->num_connections == 0) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    MHD_stop_daemon(raw->daemon);
    raw->done = true;
  });
  retiring_.push_back(std::move(retiring));
}

namespace {

bool sameTls(const std::optional<TlsConfig>& a, const std::optional<TlsConfig>& b) {
  if (a.has_value() != b.has_value()) return false;
  if (!a) return true;
  return a->certPem == b->certPem && a->keyPem == b->keyPem && a->clientCaPem == b->clientCaPem &&
         a->clientAuth == b->clientAuth && a->minVersion == b->minVersion &&
         a->maxVersion == b->maxVersion;
}

}  // namespace

std::string HttpServer::reload(const WebConfig& web) {
  if (daemon_ == nullptr) return "not serving";
  auto auth = std::make_shared<const BasicAuth>(web.basicAuthUsers);
  if (!sameTls(tls_, web.tls)) {
    // Both daemons read the users from this server: from the swap below, the old one's last
    // requests check the new users too.
    if (std::string error = startDaemon(web); !error.empty()) return error;
  }
  std::atomic_store(&auth_, std::shared_ptr<const BasicAuth>(std::move(auth)));
  // Those stopped since the last reload.
  for (auto it = retiring_.begin(); it != retiring_.end();) {
    if (!(*it)->done) {
      ++it;
      continue;
    }
    (*it)->thread.join();
    it = retiring_.erase(it);
  }
  return "";
}

void HttpServer::stop() {
  for (const std::unique_ptr<Retiring>& retiring : retiring_) {
    retiring->now = true;
    retiring->thread.join();
  }
  retiring_.clear();
  if (daemon_ != nullptr) {
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
  }
  context_.reset();
  tls_.reset();
  watch_.reset();
  socket_.reset();
  port_ = 0;
}

}  // namespace zelk::cli
