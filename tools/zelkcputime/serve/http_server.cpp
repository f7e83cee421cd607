#include "serve/http_server.h"

#include <arpa/inet.h>
#include <civetweb.h>

#include <cstring>
#include <ctime>

#include "core/decimal.h"

namespace zelk::cli {
namespace {

// civetweb reports why it cannot listen only through its log callback, on the starting thread.
thread_local std::string* startMessages = nullptr;

int logMessage(const mg_connection*, const char* message) {
  if (startMessages != nullptr && startMessages->empty()) *startMessages = message;
  return 1;  // handled: civetweb writes no log of its own
}

void send(mg_connection* connection, int status, const std::string& contentType,
          const std::string& body, bool withBody, const char* allow = nullptr) {
  mg_response_header_start(connection, status);
  mg_response_header_add(connection, "Content-Type", contentType.c_str(), -1);
  mg_response_header_add(connection, "Content-Length", std::to_string(body.size()).c_str(), -1);
  if (allow != nullptr) mg_response_header_add(connection, "Allow", allow, -1);
  mg_response_header_send(connection);
  if (withBody) mg_write(connection, body.data(), body.size());
}

int handleMetrics(mg_connection* connection, void* data) {
  const auto* server = static_cast<const HttpServer*>(data);
  const mg_request_info* request = mg_get_request_info(connection);
  const std::string method = request->request_method;
  if (method != "GET" && method != "HEAD") {
    send(connection, 405, "text/plain; charset=utf-8", "only GET and HEAD\n", true, "GET, HEAD");
    return 405;
  }
  const char* accept = mg_get_header(connection, "Accept");
  const HttpResponse response = server->handler()(accept != nullptr ? accept : "");
  send(connection, response.status, response.contentType, response.body, method == "GET");
  return response.status;
}

int handleRoot(mg_connection* connection, void*) {
  const std::string method = mg_get_request_info(connection)->request_method;
  if (method != "GET" && method != "HEAD") {
    send(connection, 405, "text/plain; charset=utf-8", "only GET and HEAD\n", true, "GET, HEAD");
    return 405;
  }
  send(connection, 200, "text/plain; charset=utf-8",
       "zelkcputime serve: CPU time per frequency, per process; metrics at /metrics\n",
       method == "GET");
  return 200;
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

std::string HttpServer::start(const ListenAddress& address, MetricsHandler handler,
                              const HttpLimits& limits) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { mg_init_library(0); });
  handler_ = std::move(handler);
  const std::string ports = address.text();
  const std::string workers = std::to_string(limits.workers);
  const std::string timeout = std::to_string(limits.requestTimeout.count());
  const std::string keepAlive = std::to_string(limits.keepAlive.count());
  const std::string maxRequest = std::to_string(limits.maxRequestBytes);
  const char* options[] = {"listening_ports",
                           ports.c_str(),
                           "num_threads",
                           workers.c_str(),
                           "request_timeout_ms",
                           timeout.c_str(),
                           "enable_keep_alive",
                           "yes",
                           "keep_alive_timeout_ms",
                           keepAlive.c_str(),
                           "max_request_size",
                           maxRequest.c_str(),
                           "tcp_nodelay",
                           "1",
                           nullptr};
  mg_callbacks callbacks = {};
  callbacks.log_message = logMessage;
  mg_init_data init = {};
  init.callbacks = &callbacks;
  init.configuration_options = options;
  char error[256] = "";
  mg_error_data errorData = {};
  errorData.text = error;
  errorData.text_buffer_size = sizeof(error);
  std::string message;
  startMessages = &message;
  context_ = mg_start2(&init, &errorData);
  startMessages = nullptr;
  if (context_ == nullptr) {
    return "cannot listen on " + ports + ": " + (message.empty() ? error : message);
  }
  mg_set_request_handler(context_, "/metrics$", handleMetrics, this);
  mg_set_request_handler(context_, "/$", handleRoot, this);
  return "";
}

uint16_t HttpServer::port() const {
  mg_server_port ports[1] = {};
  if (context_ == nullptr || mg_get_server_ports(context_, 1, ports) < 1) return 0;
  return static_cast<uint16_t>(ports[0].port);
}

void HttpServer::stop() {
  if (context_ == nullptr) return;
  mg_stop(context_);
  context_ = nullptr;
}

}  // namespace zelk::cli

// Debian's civetweb formats the Date header of every answer, its own error answers included, with
// gmtime(), whose one buffer all threads share: two workers answering at once race on it. This
// program's gmtime, which the library's calls reach before libc's, keeps one buffer per thread.
extern "C" struct tm* gmtime(const time_t* time) {
  thread_local struct tm result;
  return gmtime_r(time, &result);
}
