// Load on an HTTP server, for the server's tests and its benchmark: clients that trickle request
// headers and never finish them, connection floods, and scrapers on a fixed period.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zelk::testbed {

using std::chrono::milliseconds;

// About 120 KB of text in the exposition format, as the exporter answers at a few hundred
// process names: what a scrape costs a server to build and send.
std::string sampleExposition();

struct Percentiles {
  double p50 = 0, p99 = 0, max = 0;
};
Percentiles percentiles(std::vector<double> values);

// `count` connections to 127.0.0.1:`port`, each sending a request header one byte every
// `interval` without ever ending it; one the server closes is opened again, so that `count` stay
// open until stop(). One thread drives them all.
class TrickleClients {
 public:
  TrickleClients(uint16_t port, size_t count, milliseconds interval);
  ~TrickleClients() { stop(); }
  TrickleClients(const TrickleClients&) = delete;
  TrickleClients& operator=(const TrickleClients&) = delete;

  // Closes every connection; then lifetimes() is complete.
  void stop();
  // How long each connection the server closed had been open, in ms.
  std::vector<double> lifetimes() const;

 private:
  void run(uint16_t port, size_t count, milliseconds interval);
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::vector<double> lifetimes_;
  std::thread thread_;
};

// Opens a connection every `gap` and keeps it, sending nothing, until stop(); closes on its side
// those the server closed. One thread.
class ConnectionFlood {
 public:
  ConnectionFlood(uint16_t port, milliseconds gap);
  ~ConnectionFlood() { stop(); }
  ConnectionFlood(const ConnectionFlood&) = delete;
  ConnectionFlood& operator=(const ConnectionFlood&) = delete;

  void stop();
  size_t opened() const { return opened_; }
  size_t closedByServer() const { return closedByServer_; }
  // Connections that could not be opened at all.
  size_t failed() const { return failed_; }

 private:
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> opened_{0}, closedByServer_{0}, failed_{0};
  std::thread thread_;
};

struct ScrapeResults {
  std::vector<double> latencyMs;  // of the scrapes answered 200
  size_t failed = 0;              // any other outcome
};

// `scrapers` threads, each a GET /metrics every `period` for `duration`, on a new connection.
ScrapeResults scrapeFor(uint16_t port, size_t scrapers, milliseconds period, milliseconds duration);

}  // namespace zelk::testbed
