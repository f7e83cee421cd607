// The exporter's HTTP server: libmicrohttpd (Debian's libmicrohttpd12) in its epoll mode, chosen
// over civetweb, whose fixed pool of 16 workers sixteen clients trickling their headers could hold
// all at once. Here a waiting connection costs a descriptor and a few KiB, not a worker. MHD's own
// timeout is idle time, which a trickle resets; so this server gives each request header a
// deadline of its own and cuts the connections that miss it, and a full server closes its oldest
// connection that has not sent a whole request to make room for a new one.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "serve/basic_auth.h"
#include "serve/metrics_exporter.h"
#include "serve/web_config.h"

struct MHD_Daemon;

namespace zelk::cli {

inline constexpr const char kDefaultListen[] = "127.0.0.1:10410";

struct ListenAddress {
  std::string host;  // IPv4, dotted
  uint16_t port = 0;
  std::string text() const { return host + ":" + std::to_string(port); }
};

// "ADDR:PORT" with an IPv4 address and a port from 1 to 65535; "" on success, else the usage
// message.
std::string parseListen(const std::string& text, ListenAddress* address);

struct HttpLimits {
  // Event loops, each with its own epoll set; a scrape runs the handler on its connection's, so
  // as many scrapes run at once (and share a snapshot) as there are loops.
  unsigned threads = 8;
  // The whole request header must arrive within this time from the connection's opening, or
  // from the end of its previous request.
  std::chrono::milliseconds headerTimeout{5000};
  // A connection silent this long is closed: keep-alive between requests, or a stalled client.
  std::chrono::seconds idleTimeout{2};
  unsigned maxConnections = 512;
  // A request body (GET may have one) is read and dropped up to this size; beyond it, 413.
  uint64_t maxBodyBytes = 65536;
  // Each connection's buffer: the request line and headers, and the answer's headers. Above
  // 32 KiB MHD maps it on its own pages, which only a connection that uses them makes resident,
  // and which go back to the system with the connection (malloc would keep them in the heap).
  size_t connectionMemory = size_t{36} * 1024;
};

using MetricsHandler = std::function<HttpResponse(const std::string& accept)>;

class ConnectionWatch;
struct DaemonContext;

// GET and HEAD on /metrics call the handler and on / get a short text; other methods get 405 with
// Allow, other paths 404, malformed requests 400, long headers 431, bad versions 505 (from MHD).
// With a web configuration: TLS 1.2 and 1.3 only, client certificates as it asks (403 without
// one it requires), and with users, every request needs one's password (401 otherwise).
class HttpServer {
 public:
  HttpServer();
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds and starts serving; "" on success, else why it could not, in one line ("cannot listen
  // on 127.0.0.1:10410: Address already in use").
  std::string start(const ListenAddress& address, MetricsHandler handler,
                    const HttpLimits& limits = {}, const WebConfig& web = {});
  // Stops accepting, then ends the connections.
  void stop();
  // Another web configuration, for new connections and requests; "" on success, else why not,
  // with the one in force kept. Users alone are swapped at once. A change of TLS starts a
  // daemon on the same socket and stops the old one from accepting; the old one serves its
  // connections to their end (header deadline, idle timeout) and then stops.
  std::string reload(const WebConfig& web);

  const MetricsHandler& handler() const { return handler_; }
  const HttpLimits& limits() const { return limits_; }
  ConnectionWatch& watch() { return *watch_; }
  // The users of the configuration in force; never null once started.
  std::shared_ptr<const BasicAuth> auth() const { return std::atomic_load(&auth_); }
  // The port it listens on (the one the system chose, for port 0); 0 when not started.
  uint16_t port() const { return port_; }

 private:
  // "" or why not, in one line.
  std::string startDaemon(const WebConfig& web);

  // Stops the daemons that a reload replaced, once their connections are gone or at stop().
  void retireLater(MHD_Daemon* daemon, std::unique_ptr<DaemonContext> context);

  android::base::unique_fd socket_;
  MHD_Daemon* daemon_ = nullptr;
  std::unique_ptr<DaemonContext> context_;
  std::optional<TlsConfig> tls_;  // of daemon_
  struct Retiring;
  std::vector<std::unique_ptr<Retiring>> retiring_;
  std::shared_ptr<const BasicAuth> auth_;  // read and swapped with std::atomic_load/store
  std::unique_ptr<ConnectionWatch> watch_;
  MetricsHandler handler_;
  HttpLimits limits_;
  uint16_t port_ = 0;
};

}  // namespace zelk::cli
