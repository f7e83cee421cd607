// A child that spins on one CPU and publishes its own CPU clock as it goes: for another process
// the scheduler's figures (schedstat, the process clock) lag by up to a tick, this one does not.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zelk::testbed {

class ClockedSpinner {
 public:
  // Named `name` from its first instruction on, in the foreground (oom_score_adj 0), at nice -20
  // on `cpu`, for `duration`; then it exits.
  ClockedSpinner(const char* name, int cpu, std::chrono::milliseconds duration);
  ~ClockedSpinner();  // kills it if it still runs, and reaps it
  ClockedSpinner(const ClockedSpinner&) = delete;
  ClockedSpinner& operator=(const ClockedSpinner&) = delete;

  pid_t pid() const { return pid_; }
  // Nanoseconds it had run at its latest turn of the loop (microseconds apart); 0 before it
  // starts.
  uint64_t clockNs() const { return clock_->load(); }
  // Waits until it has started spinning; false after five seconds.
  bool started() const;

 private:
  pid_t pid_ = -1;
  std::atomic<uint64_t>* clock_ = nullptr;
};

// Pins `pid` (0: the caller) to `cpu`.
void pinToCpu(pid_t pid, int cpu);

}  // namespace zelk::testbed
