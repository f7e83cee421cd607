// A child that spins on one CPU and publishes its own CPU clock as it goes: for another process
// the scheduler's figures (schedstat, the process clock) lag by up to a tick, this one does not.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zelk::testbed {

// The CPU time that a task's clock leaves out and the object, which counts a CPU's wall time
// between switches, includes: interrupts and what the hypervisor took (irq, softirq and steal of
// /proc/stat), in nanoseconds since boot; of CPU `cpu`, or of all CPUs for -1.
uint64_t untaskedNs(int cpu = -1);

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
  // What its CPU's interrupts and hypervisor took since it was made: how much more than its
  // clock the object may count for it.
  uint64_t untaskedSinceStart() const { return untaskedNs(cpu_) - untaskedAtStart_; }

 private:
  pid_t pid_ = -1;
  int cpu_ = -1;
  uint64_t untaskedAtStart_ = 0;
  std::atomic<uint64_t>* clock_ = nullptr;
};

// Pins `pid` (0: the caller) to `cpu`.
void pinToCpu(pid_t pid, int cpu);

}  // namespace zelk::testbed
