// What the test process itself holds and logs: its descriptors and threads from /proc/self, every
// message the library sends to liblog; and bounded waiting.
#pragma once

#include <android/log.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zelk::testbed {

struct LogLine {
  int priority;
  std::string text;
};

// Captures every message that the library sends to liblog, debug ones included.
class LogCapture {
 public:
  // Installs the capturing logger (process-wide) and forgets earlier lines.
  LogCapture();
  std::vector<LogLine> lines() const;
  // Lines whose text contains `needle`.
  size_t count(const std::string& needle) const;
  void clear();
};

// The text with the "[function:line] " prefix's line number replaced by N, to compare exactly.
std::string withoutLine(const std::string& text);

// Entries of /proc/self/fd, not counting the descriptor that lists them.
size_t openDescriptorCount();

// Polls `done` every few milliseconds until it is true, or false after `timeout`.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

// The state letter of a task (R, S, D...) from its stat file, or 0 when unreadable.
char taskState(const std::string& statPath);

// Waits until thread `tid` of this process sleeps (state S), at most `timeout`.
bool waitUntilSleeping(pid_t tid, std::chrono::milliseconds timeout);

// Watches the library's background threads. In a test's namespace each one ends by itself once
// the kernel refuses its pressure trigger (no CAP_SYS_RESOURCE): it logs the trigger line, then
// the write failure, then returns.
class BackgroundThreads {
 public:
  // Takes the baseline, after a first thread has come and gone so that a thread the runtime
  // starts then (ThreadSanitizer's) is part of it.
  BackgroundThreads();
  // Threads above the baseline right now.
  size_t running() const;
  // Waits (bounded) until every thread's monitor (one per tracking result line) has logged its
  // end, then until the threads are gone. The log wait also orders the threads' work before the
  // test's own for a race detector, which cannot see a thread's end through /proc.
  bool ended(const LogCapture& log) const;

 private:
  size_t baseline_;
};

}  // namespace zelk::testbed
