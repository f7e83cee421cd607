// The CPU pressure monitor against the kernel's real pressure-stall interface. The monitor never
// returns while its trigger is registered, so each case runs it in a child that is killed at a
// deadline. The kernel grants the 1 s window only with CAP_SYS_RESOURCE, which a child has as
// root of its own user namespace.
#include "kernel/pressure_monitor.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "child_process.h"
#include "namespace.h"
#include "self_status.h"

namespace com::zelkora {
namespace {

using namespace std::chrono_literals;
using android::base::EndsWith;
using android::base::StartsWith;
using namespace zelk::testbed;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZELK_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(ZELK_TSAN)
// ThreadSanitizer starts its own thread again in every forked child, and a process with more
// than one thread cannot enter a new user namespace.
constexpr bool kChildCanEnterUserNamespace = false;
#else
constexpr bool kChildCanEnterUserNamespace = true;
#endif

constexpr char kTriggerLine[] = "4 [doPollPsi:N] Trigger: some 500000 1000000\n";

// What a child reports: each log line as "<priority> <text>", then whether the descriptors are
// those it had before the monitor ran.
void report(int out, const LogCapture& log, size_t fdsBefore) {
  std::string text;
  for (const auto& line : log.lines()) {
    text += std::to_string(line.priority) + " " + withoutLine(line.text) + "\n";
  }
  const bool closed = openDescriptorCount() == fdsBefore;
  writeAll(out, text + (closed ? "closed\n" : "left open\n"));
}

TEST(PressureMonitorTest, WithoutCapSysResourceTheTriggerIsRefusedAndTheMonitorEnds) {
  const auto child = runInChild(
      [](int out) {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct caps[2];
        if (syscall(SYS_capget, &header, caps) != 0) return 1;
        caps[CAP_SYS_RESOURCE / 32].effective &= ~(1u << (CAP_SYS_RESOURCE % 32));
        if (syscall(SYS_capset, &header, caps) != 0) return 1;
        LogCapture log;
        const size_t fds = openDescriptorCount();
        doPollPsi();
        report(out, log, fds);
        return 0;
      },
      {.timeout = 10s});
  ASSERT_EQ(child.status, 0) << "the monitor did not end: " << child.output;
  EXPECT_EQ(child.output, std::string(kTriggerLine) +
                              "6 [doPollPsi:N] Failed to write trigger, reason: Invalid argument.\n"
                              "closed\n");
}

// In a child that is root of its own user namespace, so that the kernel takes the trigger.
TEST(PressureMonitorTest, ReportsEachCrossingOfRealPressureUntilAnInterruptedPollEndsIt) {
  if (!kChildCanEnterUserNamespace) GTEST_SKIP() << "forked children have two threads here";
  const auto child = runInChild(
      [](int out) {
        struct sigaction action = {};
        action.sa_handler = [](int) {};  // poll is never restarted after a handler
        sigaction(SIGUSR1, &action, nullptr);
        LogCapture log;
        const size_t fds = openDescriptorCount();
        std::thread monitor(doPollPsi);
        waitUntil([&] { return log.count("Trigger:") > 0; }, 5s);
        {  // more spinning threads than CPUs, until two events show that the wait resumes
          std::atomic<bool> stop{false};
          std::vector<std::thread> spinners(3 * std::max(1u, std::thread::hardware_concurrency()));
          for (auto& spinner : spinners) {
            spinner = std::thread([&] {
              while (!stop.load(std::memory_order_relaxed)) {
              }
            });
          }
          waitUntil([&] { return log.count("psi is high") >= 2 || log.count("Failed") > 0; }, 30s);
          stop = true;
          for (auto& spinner : spinners) spinner.join();
        }
        // A signal that lands while the monitor is not in poll is lost; send until one is not.
        waitUntil(
            [&] {
              pthread_kill(monitor.native_handle(), SIGUSR1);
              return log.count("Failed") > 0;
            },
            5s);
        monitor.join();
        report(out, log, fds);
        return 0;
      },
      {.userNamespace = true, .timeout = 60s});
  if (child.status == kNoUserNamespace) {
    ZELK_SKIP_OR_FAIL("no user namespace for the pressure trigger: " + child.output);
  }
  ASSERT_EQ(child.status, 0) << "the child failed: " << child.output;
  EXPECT_TRUE(StartsWith(child.output, kTriggerLine)) << child.output;
  const std::string high = "\n3 [doPollPsi:N] cpu psi is high, 500ms at 1s window\n";
  const size_t first = child.output.find(high);
  ASSERT_NE(first, std::string::npos) << child.output;
  EXPECT_NE(child.output.find(high, first + 1), std::string::npos) << "a second event";
  const std::string end =
      "\n6 [doPollPsi:N] Failed to poll, reason: Interrupted system call.\nclosed\n";
  EXPECT_TRUE(EndsWith(child.output, end)) << child.output;
  EXPECT_EQ(child.output.find("\n6 "), child.output.size() - end.size()) << "no other error";
}

}  // namespace
}  // namespace com::zelkora
