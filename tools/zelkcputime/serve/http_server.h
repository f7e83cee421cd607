// The exporter's HTTP server: civetweb (Debian's libcivetweb), which bounds each request's
// headers in size and the time to receive them in total, so that neither a large nor a trickling
// request holds a worker; its fixed pool of workers serves the other clients meanwhile.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "serve/metrics_exporter.h"

struct mg_context;

namespace zelk::cli {

inline constexpr const char kDefaultListen[] = "127.0.0.1:10410";

struct ListenAddress {
  std::string host;  // IPv4, dotted
  uint16_t port = 0;
  std::string text() const { return host + ":" + std::to_string(port); }
};

// "ADDR:PORT" with an IPv4 address and a port from 1 to 65535; "" on success, else the usage
// message. (Debian's civetweb is built without IPv6.)
std::string parseListen(const std::string& text, ListenAddress* address);

struct HttpLimits {
  unsigned workers = 16;                           // requests served at once
  std::chrono::milliseconds requestTimeout{5000};  // to receive a request's headers, or send
  std::chrono::milliseconds keepAlive{2000};       // idle time between requests on a connection
  unsigned maxRequestBytes = 16384;                // request line and headers
};

using MetricsHandler = std::function<HttpResponse(const std::string& accept)>;

// GET and HEAD on /metrics call the handler; other methods there get 405, other paths 404,
// malformed requests 400 (from civetweb).
class HttpServer {
 public:
  HttpServer() = default;
  ~HttpServer() { stop(); }
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds and starts the workers; "" on success, else why it could not listen.
  std::string start(const ListenAddress& address, MetricsHandler handler,
                    const HttpLimits& limits = {});
  // Ends the workers after the requests under way.
  void stop();

  const MetricsHandler& handler() const { return handler_; }
  // The port it listens on (the one the system chose, for port 0); 0 when not started.
  uint16_t port() const;

 private:
  mg_context* context_ = nullptr;
  MetricsHandler handler_;
};

}  // namespace zelk::cli
