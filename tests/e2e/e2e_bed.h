// The pair end to end, each test in a private namespace with bpffs and tracefs: the kernel object
// freshly loaded, one cpufreq policy over every CPU at the first of its 32 frequencies, tracking
// started through the library; and what scripted children do.
#pragma once

#include <android-base/file.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "clocked_spinner.h"
#include "namespace.h"
#include "object_loader.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace zelk::testbed {

using std::chrono::milliseconds;

inline constexpr uint64_t kMs = 1000000;

class TrackingTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  // The object file to load instead of the loader's own.
  virtual const char* objectFile() const { return nullptr; }
  // Anything else to ask of the load, such as map sizes.
  virtual void adjustLoad(loader::LoadOptions&) const {}
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    loader::LoadOptions options;
    std::string bytes;
    if (objectFile() != nullptr) {
      ASSERT_TRUE(android::base::ReadFileToString(objectFile(), &bytes)) << objectFile();
      options.object = {bytes.data(), bytes.size()};
    }
    adjustLoad(options);
    const loader::Outcome outcome = loader::load(options);
    ASSERT_EQ(outcome.status, loader::Status::kLoaded) << outcome.message;
    std::vector<uint64_t> freqs;  // one per slot of the object: every slot shows in the results
    for (uint64_t khz = 300000; freqs.size() < 32; khz += 100000) freqs.push_back(khz);
    addMachinePolicy(freqs);
    ASSERT_TRUE(com::zelkora::startTrackingCpuFreqTime());
    // Children start once the background thread has ended: its seeding pass deletes the pid
    // entries it finds already made, and ThreadSanitizer lets a child start threads only when
    // forked from a single thread.
    ASSERT_TRUE(threads_.ended(log_)) << "the library's background thread did not end";
    untaskedAtStart_ = untaskedNs();
  }
  // What the task clocks have left out since the set-up: how much more than schedstat the object
  // may count.
  uint64_t untaskedSinceStart() const { return untaskedNs() - untaskedAtStart_; }
  // The background thread uses the library's map descriptors; it must end before they close.
  void TearDown() override { threads_.ended(log_); }

  LogCapture log_;
  BackgroundThreads threads_;
  uint64_t untaskedAtStart_ = 0;
};

// Time over every policy and frequency; 0 for no result.
inline uint64_t sum(const std::optional<com::zelkora::TimeInStateVector>& times) {
  uint64_t total = 0;
  for (const auto& policy : times.value_or(com::zelkora::TimeInStateVector{})) {
    for (uint64_t time : policy) total += time;
  }
  return total;
}

// A name's time in a top or background table, 0 when absent; a failed query fails the test.
inline uint64_t timeOf(const std::optional<com::zelkora::TimeTable>& table,
                       const std::string& name) {
  if (!table) {
    ADD_FAILURE() << "the top or background query failed";
    return 0;
  }
  const auto entry = table->find({name, 0});
  return entry == table->end() ? 0 : entry->second;
}

inline void setName(const char* name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

inline void setOomScoreAdj(int adj) {
  char text[16];
  const int length = snprintf(text, sizeof(text), "%d", adj);
  const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (fd < 0 || write(fd, text, length) != length) _exit(122);
  close(fd);
}

inline void spin(milliseconds duration) {  // on the CPU
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
  }
}

inline void sleepFor(milliseconds duration) { std::this_thread::sleep_for(duration); }

// CLOCK_MONOTONIC in nanoseconds, the clock of the object's and the library's times: read here
// rather than through the library, so that these tests need only its exported functions.
inline uint64_t monotonicNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Nanoseconds the task has run, from /proc/<pid>/schedstat.
inline std::optional<uint64_t> runtimeNs(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
  uint64_t runtime;
  if (!(file >> runtime)) return std::nullopt;
  return runtime;
}

// Waits until the task sleeps off the CPU; false after kWait. A task shows S as soon as it means
// to sleep, before it leaves the CPU, and its runtime is brought up to date only at ticks and
// switches: so it also has to stop growing.
inline bool waitUntilBlocked(pid_t pid) {
  std::optional<uint64_t> seen;
  auto seenAt = std::chrono::steady_clock::now();
  return waitUntil(
      [&] {
        const char state = taskState("/proc/" + std::to_string(pid) + "/stat");
        const auto runtime = runtimeNs(pid);
        const auto now = std::chrono::steady_clock::now();
        if ((state != 'S' && state != 'D') || runtime != seen) {
          seen = runtime;
          seenAt = now;
          return false;
        }
        return now - seenAt >= milliseconds(20);
      },
      kWait);
}

// A foreground child that, for each phase, tells the test and spins for that long on its go; it
// then tells once more and blocks. Time is counted at switch-out under the name the task has
// then, so it takes `name` at the start of a slice: what is counted under it is its runtime
// after its first word.
inline Child spinner(const char* name, std::vector<int> phaseMs) {
  return Child([=](Child& link) {
    setOomScoreAdj(0);
    for (size_t i = 0; i < phaseMs.size(); ++i) {
      link.tell(i);
      link.awaitGo();
      if (i == 0) setName(name);
      spin(milliseconds(phaseMs[i]));
    }
    link.tell(phaseMs.size());
    link.awaitGo();
  });
}

// The child's runtime once it has told the test and switched out.
inline uint64_t runtimeAtWord(Child& child) {
  EXPECT_TRUE(child.next().has_value()) << "the child did not tell";
  EXPECT_TRUE(waitUntilBlocked(child.pid()));
  return runtimeNs(child.pid()).value_or(0);
}

}  // namespace zelk::testbed
