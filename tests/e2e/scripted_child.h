// A forked child that runs a scripted body and talks to the test through two pipes, with every
// wait bounded. The child is killed and reaped if the test ends first.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zelk::testbed {

using std::chrono::milliseconds;

// The child's side. Only async-signal-safe work belongs in a body.
class ChildLink {
 public:
  ChildLink(int toParent, int fromParent) : toParent_(toParent), fromParent_(fromParent) {}
  void tell(int64_t value);
  // Blocks (off the CPU) until the parent says go.
  void awaitGo();

 private:
  int toParent_;
  int fromParent_;
};

class Child {
 public:
  explicit Child(const std::function<void(ChildLink&)>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  // The next value the child tells, or nothing after `timeout` or when it closed its end.
  std::optional<int64_t> next(milliseconds timeout);
  void go();
  // Waits for the child to exit; its exit status, or -1 after `timeout`.
  int wait(milliseconds timeout);

 private:
  pid_t pid_ = -1;
  int fromChild_ = -1;
  int toChild_ = -1;
};

// Body helpers, for use in the child.
void setName(const char* name);
void setOomScoreAdj(int adj);
void spin(milliseconds duration);  // on the CPU
void sleepFor(milliseconds duration);

// Nanoseconds the task has run, from /proc/<pid>/schedstat; nothing if it cannot be read.
std::optional<uint64_t> runtimeNs(pid_t pid);
// Waits until the task sleeps (state S or D) off the CPU, its runtime settled; false after
// `timeout`.
bool waitUntilBlocked(pid_t pid, milliseconds timeout);

}  // namespace zelk::testbed
