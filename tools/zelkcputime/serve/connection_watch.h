// The server's connections and the deadlines of their request headers. MHD's connection timeout
// is idle time, reset by every byte, so a client that sends one byte a second would keep a
// connection for ever; this watch cuts (shutdown(2)) the connections whose header is late, and
// makes room for a new connection when the server is full by cutting the oldest one that has not
// sent a whole request.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <thread>
#include <unordered_map>

#include "core/mutex.h"

struct MHD_Connection;

namespace zelk::cli {

class ConnectionWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // Starts the thread that cuts late headers, looking every `tick`.
  ConnectionWatch(std::chrono::milliseconds headerTimeout, size_t maxConnections,
                  std::chrono::milliseconds tick = std::chrono::milliseconds(50));
  ~ConnectionWatch();
  ConnectionWatch(const ConnectionWatch&) = delete;
  ConnectionWatch& operator=(const ConnectionWatch&) = delete;

  // From MHD's notifications. The descriptor is cut only while its connection is known here, and
  // MHD tells CLOSED before it closes the descriptor, so a cut never reaches a reused one.
  // `plain`: the connection speaks plain HTTP, so that a client that sent bytes but never a
  // readable request can be told why it is cut (400, 408) before it is.
  void opened(MHD_Connection* connection, int fd, bool plain);
  void closed(MHD_Connection* connection);
  // The header is complete (the handler is called); and the answer is sent.
  void requestStarted(MHD_Connection* connection);
  void requestEnded(MHD_Connection* connection);

  // Cuts the connections whose header is late at `now`; how many.
  size_t sweep(Clock::time_point now);

  // Connections open and not cut; those cut so far at their deadline, and to make room.
  size_t live() const;
  size_t cutLate() const;
  size_t cutForRoom() const;

 private:
  struct Entry {
    int fd = -1;
    Clock::time_point since;  // opened, or its previous request ended
    bool waiting = true;      // for a request header
    bool asked = false;       // a request reached the handler
    bool plain = true;        // HTTP, not TLS
    bool cut = false;
  };
  void cutLocked(Entry* entry) REQUIRES(mutex_);
  // Writes a short answer with `status` to a client that sent bytes and got none, then ends the
  // stream; nothing when the server has written already.
  static void answerUnasked(int fd, const char* status);

  const std::chrono::milliseconds headerTimeout_;
  const size_t maxConnections_;
  mutable com::zelkora::Mutex mutex_;
  std::unordered_map<MHD_Connection*, Entry> entries_ GUARDED_BY(mutex_);
  size_t live_ GUARDED_BY(mutex_) = 0;
  size_t cutLate_ GUARDED_BY(mutex_) = 0;
  size_t cutForRoom_ GUARDED_BY(mutex_) = 0;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::condition_variable_any wake_;
  std::thread sweeper_;
};

}  // namespace zelk::cli
