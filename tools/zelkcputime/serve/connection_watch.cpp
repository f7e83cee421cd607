#include "serve/connection_watch.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <string>

namespace zelk::cli {

ConnectionWatch::ConnectionWatch(std::chrono::milliseconds headerTimeout, size_t maxConnections,
                                 std::chrono::milliseconds tick)
    : headerTimeout_(headerTimeout), maxConnections_(maxConnections) {
  sweeper_ = std::thread([this, tick] {
    for (;;) {
      {
        com::zelkora::MutexLock lock(mutex_);
        if (stopping_) return;
        wake_.wait_for(mutex_, tick);
        if (stopping_) return;
      }
      sweep(Clock::now());
    }
  });
}

ConnectionWatch::~ConnectionWatch() {
  {
    com::zelkora::MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  sweeper_.join();
}

void ConnectionWatch::cutLocked(Entry* entry) {
  // Shutdown, not close: MHD still owns the descriptor, sees the end of the stream on its next
  // read and closes the connection itself.
  shutdown(entry->fd, SHUT_RDWR);
  entry->cut = true;
  --live_;
}

void ConnectionWatch::opened(MHD_Connection* connection, int fd, bool plain) {
  com::zelkora::MutexLock lock(mutex_);
  Entry& entry = entries_[connection];
  entry.fd = fd;
  entry.plain = plain;
  entry.since = Clock::now();
  ++live_;
  if (live_ <= maxConnections_) return;
  // Full: the oldest connection still waiting for a header goes; a client that connects to send
  // a request sends it at once, so it is never the oldest. When every other connection is
  // answering, the new one goes.
  Entry* oldest = nullptr;
  for (auto& [other, candidate] : entries_) {
    if (candidate.waiting && !candidate.cut &&
        (oldest == nullptr || candidate.since < oldest->since)) {
      oldest = &candidate;
    }
  }
  cutLocked(oldest != nullptr ? oldest : &entry);
  ++cutForRoom_;
}

void ConnectionWatch::closed(MHD_Connection* connection) {
  com::zelkora::MutexLock lock(mutex_);
  const auto it = entries_.find(connection);
  if (it == entries_.end()) return;
  // MHD 0.9.75 closes a connection whose request line it cannot read (binary bytes, one word)
  // without a word, and tells it closed before it closes the descriptor.
  if (!it->second.cut && !it->second.asked && it->second.plain) {
    answerUnasked(it->second.fd, "400 Bad Request");
  }
  if (!it->second.cut) --live_;
  entries_.erase(it);
}

void ConnectionWatch::requestStarted(MHD_Connection* connection) {
  com::zelkora::MutexLock lock(mutex_);
  if (const auto it = entries_.find(connection); it != entries_.end()) {
    it->second.waiting = false;
    it->second.asked = true;
  }
}

void ConnectionWatch::requestEnded(MHD_Connection* connection) {
  com::zelkora::MutexLock lock(mutex_);
  if (const auto it = entries_.find(connection); it != entries_.end()) {
    it->second.waiting = true;
    it->second.since = Clock::now();
  }
}

size_t ConnectionWatch::sweep(Clock::time_point now) {
  com::zelkora::MutexLock lock(mutex_);
  size_t cut = 0;
  for (auto& [connection, entry] : entries_) {
    if (entry.waiting && !entry.cut && now - entry.since >= headerTimeout_) {
      // Waiting for a header, MHD writes nothing on this connection meanwhile.
      if (!entry.asked && entry.plain) answerUnasked(entry.fd, "408 Request Timeout");
      cutLocked(&entry);
      ++cut;
    }
  }
  cutLate_ += cut;
  return cut;
}

void ConnectionWatch::answerUnasked(int fd, const char* status) {
  tcp_info info = {};
  socklen_t length = sizeof(info);
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
      length < offsetof(tcp_info, tcpi_bytes_sent) + sizeof(info.tcpi_bytes_sent) ||
      info.tcpi_bytes_received == 0 || info.tcpi_bytes_sent != 0) {
    return;
  }
  const std::string body = std::string(status).substr(4) + "\n";
  const std::string answer = std::string("HTTP/1.1 ") + status +
                             "\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8"
                             "\r\nContent-Length: " +
                             std::to_string(body.size()) + "\r\n\r\n" + body;
  send(fd, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  // Bytes left unread would make the close a reset, which can discard the answer in transit.
  char rest[4096];
  for (int i = 0; i < 16 && recv(fd, rest, sizeof(rest), MSG_DONTWAIT) > 0; ++i) {
  }
  shutdown(fd, SHUT_WR);
}

size_t ConnectionWatch::live() const {
  com::zelkora::MutexLock lock(mutex_);
  return live_;
}

size_t ConnectionWatch::cutLate() const {
  com::zelkora::MutexLock lock(mutex_);
  return cutLate_;
}

size_t ConnectionWatch::cutForRoom() const {
  com::zelkora::MutexLock lock(mutex_);
  return cutForRoom_;
}

}  // namespace zelk::cli
