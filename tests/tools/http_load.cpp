#include "http_load.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "serve_bed.h"

namespace zelk::testbed {
namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// True when the server has closed `fd` (end of stream or reset), after reading what it sent.
bool closedByPeer(int fd) {
  char buffer[512];
  for (;;) {
    const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n > 0) continue;
    return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
  }
}

}  // namespace

std::string sampleExposition() {
  std::string body;
  char line[160];
  for (int i = 0; i < 1500; ++i) {
    snprintf(line, sizeof(line),
             "zelk_process_cpu_seconds_total{comm=\"process-%d\",policy=\"%d\"} %d.%03d\n", i,
             i % 2, i * 7, i % 1000);
    body += line;
  }
  return body;
}

Percentiles percentiles(std::vector<double> values) {
  Percentiles p;
  if (values.empty()) return p;
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) {
    return values[std::min(values.size() - 1, static_cast<size_t>(q * values.size()))];
  };
  p.p50 = at(0.5);
  p.p99 = at(0.99);
  p.max = values.back();
  return p;
}

TrickleClients::TrickleClients(uint16_t port, size_t count, milliseconds interval)
    : thread_([this, port, count, interval] { run(port, count, interval); }) {}

void TrickleClients::run(uint16_t port, size_t count, milliseconds interval) {
  // Long enough never to end within any deadline worth testing.
  static const std::string kHeader =
      "GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: " + std::string(4096, 's');
  struct Slow {
    int fd;
    Clock::time_point opened;
    size_t sent;
  };
  std::vector<Slow> slow;
  std::vector<double> done;
  auto next = Clock::now();
  while (!stopping_) {
    while (slow.size() < count) {
      const int fd = connectLoopback(port);
      if (fd < 0) break;
      slow.push_back({fd, Clock::now(), 0});
    }
    if (Clock::now() >= next) {
      for (Slow& s : slow) {
        send(s.fd, &kHeader[s.sent % kHeader.size()], 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        ++s.sent;
      }
      next += interval;
    }
    std::vector<pollfd> fds;
    for (const Slow& s : slow) fds.push_back({s.fd, POLLIN, 0});
    poll(fds.data(), fds.size(), static_cast<int>(std::max<int64_t>(1, timeLeft(next).count())));
    for (size_t i = slow.size(); i-- > 0;) {
      if (fds[i].revents == 0 || !closedByPeer(slow[i].fd)) continue;
      done.push_back(msSince(slow[i].opened));
      close(slow[i].fd);
      slow.erase(slow.begin() + static_cast<ptrdiff_t>(i));
    }
  }
  for (const Slow& s : slow) close(s.fd);
  std::lock_guard<std::mutex> lock(mutex_);
  lifetimes_ = std::move(done);
}

void TrickleClients::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

std::vector<double> TrickleClients::lifetimes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lifetimes_;
}

ConnectionFlood::ConnectionFlood(uint16_t port, milliseconds gap)
    : thread_([this, port, gap] {
        std::vector<int> open;
        while (!stopping_) {
          const int fd = connectLoopback(port);
          if (fd >= 0) {
            open.push_back(fd);
            ++opened_;
          } else {
            ++failed_;
          }
          for (size_t i = open.size(); i-- > 0;) {
            pollfd p = {open[i], POLLIN, 0};
            if (poll(&p, 1, 0) > 0 && closedByPeer(open[i])) {
              close(open[i]);
              open.erase(open.begin() + static_cast<ptrdiff_t>(i));
              ++closedByServer_;
            }
          }
          std::this_thread::sleep_for(gap);
        }
        for (int fd : open) close(fd);
      }) {}

void ConnectionFlood::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

ScrapeResults scrapeFor(uint16_t port, size_t scrapers, milliseconds period,
                        milliseconds duration) {
  std::mutex mutex;
  ScrapeResults results;
  std::vector<std::thread> threads;
  const auto end = Clock::now() + duration;
  for (size_t t = 0; t < scrapers; ++t) {
    threads.emplace_back([&, t] {
      // Spread over the period, as independent scrapers are.
      auto next = Clock::now() + period * t / scrapers;
      while (next < end) {
        std::this_thread::sleep_until(next);
        const auto start = Clock::now();
        const HttpReply reply = httpRequest(port, "GET", "/metrics");
        const double ms = msSince(start);
        std::lock_guard<std::mutex> lock(mutex);
        if (reply.status == 200 && reply.contentLength == static_cast<int64_t>(reply.body.size())) {
          results.latencyMs.push_back(ms);
        } else {
          ++results.failed;
        }
        next += period;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return results;
}

}  // namespace zelk::testbed
