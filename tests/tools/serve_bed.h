// What the exporter's tests need around it: programs that run beside the test (the tool's serve,
// Prometheus), an HTTP client of its own (HTTP/1.1, Connection: close), raw bytes for requests no
// client would send, and the Prometheus query API.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "background.h"

namespace zelk::testbed {

using std::chrono::milliseconds;

struct HttpReply {
  int status = -1;  // -1: no answer
  std::string contentType;
  int64_t contentLength = -1;  // -1: none given
  std::string body;
};

// One request on a connection of its own, read until the server closes it (30 s at most).
HttpReply httpRequest(uint16_t port, const std::string& method, const std::string& path,
                      const std::string& accept = "");

// The status, Content-Type, Content-Length and body of an answer read whole; status -1 when it
// is not one.
HttpReply parseReply(const std::string& raw);
// A TCP connection to 127.0.0.1:port (close-on-exec), or -1.
int connectLoopback(uint16_t port);
// crypt_r's bcrypt of `password`, at the lowest cost; "" if libcrypt cannot make one.
std::string bcrypt(const std::string& password);

// Sends `bytes` on a new connection to 127.0.0.1:`port` and returns what comes back until the
// server closes it or `timeout` passes; `*closedAfter` is how long the server took to close.
std::string rawExchange(uint16_t port, const std::string& bytes, milliseconds timeout,
                        milliseconds* closedAfter = nullptr);

// Sends `bytes` one at a time, `interval` apart, until the server answers or closes, or
// `timeout` passes; returns what came back.
std::string rawTrickle(uint16_t port, const std::string& bytes, milliseconds interval,
                       milliseconds timeout);

// The path of /usr/bin/`name`, or "" when it is not installed.
std::string installedProgram(const std::string& name);

// Debian's Prometheus on 127.0.0.1:`port`, with `config` as its configuration and a fresh
// storage folder.
class Prometheus {
 public:
  // "" once it answers ready, else what failed.
  std::string start(const std::string& config, uint16_t port);
  ~Prometheus();
  // An instant query: the value of the first sample, or nothing.
  std::optional<double> query(const std::string& expression) const;
  // The series in its head block (every series it stored since its start: it compacts after
  // hours), and the status answer that holds the count by metric name.
  std::optional<uint64_t> headSeries(std::string* status = nullptr) const;
  std::string log() { return server_ ? server_->output() : ""; }

 private:
  uint16_t port_ = 0;
  std::string dir_;
  std::optional<Background> server_;
};

// Resident memory (VmRSS, KiB) and open descriptors of a process.
uint64_t residentKiB(pid_t pid);
size_t descriptorCount(pid_t pid);

}  // namespace zelk::testbed
