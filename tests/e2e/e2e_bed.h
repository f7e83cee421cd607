// The pair end to end, each test in a private namespace with bpffs and tracefs: the kernel object
// freshly loaded, one cpufreq policy over every CPU, tracking started through the library; and
// forked children that run a script, talking to the test through pipes with bounded waits.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "background_threads.h"
#include "log_capture.h"
#include "namespace.h"
#include "zelkcpufreqtime.h"

namespace zelk::testbed {

using std::chrono::milliseconds;

inline constexpr milliseconds kWait(5000);
inline constexpr uint64_t kMs = 1000000;

class TrackingTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override;
  // The background thread uses the library's map descriptors; it must end before they close.
  void TearDown() override { threads_.ended(log_); }
  // The object file to load instead of the loader's own.
  virtual const char* objectFile() const { return nullptr; }

  LogCapture log_;
  BackgroundThreads threads_;
};

// Time over every policy and frequency; 0 for no result.
uint64_t sum(const std::optional<com::zelkora::TimeInStateVector>& times);
// A name's time in a top or background table, 0 when absent; a failed query fails the test.
uint64_t timeOf(const std::optional<com::zelkora::TimeTable>& table, const std::string& name);

// The child's side of the pipes. Only async-signal-safe work belongs in a child's body.
class ChildLink {
 public:
  ChildLink(int toParent, int fromParent) : toParent_(toParent), fromParent_(fromParent) {}
  void tell(int64_t value);
  void awaitGo();  // blocks, off the CPU, until the parent says go

 private:
  int toParent_;
  int fromParent_;
};

// A forked child running `body`; killed and reaped if the test ends first.
class Child {
 public:
  explicit Child(const std::function<void(ChildLink&)>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  // The next value the child tells; nothing after `timeout` or when it closed its end.
  std::optional<int64_t> next(milliseconds timeout);
  void go();
  // The exit status, or -1 after `timeout`.
  int wait(milliseconds timeout);

 private:
  pid_t pid_ = -1;
  int fromChild_ = -1;
  int toChild_ = -1;
};

void setName(const char* name);
void setOomScoreAdj(int adj);
void spin(milliseconds duration);  // on the CPU
void sleepFor(milliseconds duration);

// Nanoseconds the task has run, from /proc/<pid>/schedstat.
std::optional<uint64_t> runtimeNs(pid_t pid);
// Waits until the task sleeps off the CPU with its runtime settled; false after `timeout`.
bool waitUntilBlocked(pid_t pid, milliseconds timeout);

}  // namespace zelk::testbed
