// The CPU pressure monitor against the kernel's real pressure-stall interface. The monitor never
// returns while its trigger is registered, so each case runs it in a child that is killed at a
// deadline. Outside a user namespace the kernel refuses a 1 s window to a process without
// CAP_SYS_RESOURCE; as root of its own user namespace the child has that capability there.
#include "kernel/pressure_monitor.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>

#include "child_process.h"
#include "cpu_pressure.h"
#include "log_capture.h"
#include "namespace.h"
#include "self_status.h"

namespace com::zelkora {
namespace {

using namespace std::chrono_literals;
using zelk::testbed::LogCapture;
using zelk::testbed::LogLine;

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

constexpr const char kTriggerLine[] = "[doPollPsi:N] Trigger: some 500000 1000000";
constexpr const char kPressureLine[] = "[doPollPsi:N] cpu psi is high, 500ms at 1s window";

// The child reports its log lines as "<priority> <text>", then "fds <before> <after>".
void report(int out, const LogCapture& log, size_t fdsBefore, size_t fdsAfter) {
  std::string text;
  for (const LogLine& line : log.lines()) {
    text += std::to_string(line.priority) + " " + zelk::testbed::withoutLine(line.text) + "\n";
  }
  text += "fds " + std::to_string(fdsBefore) + " " + std::to_string(fdsAfter) + "\n";
  zelk::testbed::writeAll(out, text);
}

struct Report {
  bool inNamespace = true;  // false: the child could not enter its user namespace
  std::string raw;
  std::vector<LogLine> lines;
  size_t fdsBefore = 0;
  size_t fdsAfter = 0;
  bool complete = false;
};

Report parse(const std::string& output) {
  Report parsed;
  parsed.raw = output;
  std::istringstream in(output);
  std::string word;
  while (in >> word) {
    if (word == "fds") {
      in >> parsed.fdsBefore >> parsed.fdsAfter;
      parsed.complete = true;
      continue;
    }
    std::string text;
    std::getline(in, text);
    // Anything else is the child's own complaint, kept whole with no priority.
    const bool tagged = word.find_first_not_of("0123456789") == std::string::npos;
    parsed.lines.push_back(
        {tagged ? std::stoi(word) : -1, "", tagged ? text.substr(1) : word + text});
  }
  return parsed;
}

size_t countText(const Report& report, const std::string& text) {
  size_t n = 0;
  for (const LogLine& line : report.lines) n += line.text == text;
  return n;
}

// Runs `body` in a user-namespace child and checks that it ran to its end.
Report runAsNamespaceRoot(const std::function<int(int)>& body, std::chrono::milliseconds timeout) {
  const zelk::testbed::ChildResult result =
      zelk::testbed::runInChild(body, {.userNamespace = true, .timeout = timeout});
  Report parsed = parse(result.output);
  parsed.inNamespace = !(result.exited && result.status == zelk::testbed::kNoUserNamespace);
  if (parsed.inNamespace) {
    EXPECT_TRUE(result.exited && result.status == 0) << "the child failed: " << result.output;
  }
  return parsed;
}

TEST(PressureMonitorTest, InitialNamespaceRefusesTheOneSecondWindow) {
  if (zelk::testbed::hasCapability(CAP_SYS_RESOURCE)) {
    GTEST_SKIP() << "with CAP_SYS_RESOURCE the kernel accepts the trigger here";
  }
  const auto result = zelk::testbed::runInChild(
      [](int out) {
        LogCapture log;
        const size_t before = zelk::testbed::openDescriptorCount();
        doPollPsi();
        report(out, log, before, zelk::testbed::openDescriptorCount());
        return 0;
      },
      {.userNamespace = false, .timeout = 10000ms});
  ASSERT_TRUE(result.exited && result.status == 0) << "the monitor did not end: " << result.output;
  const Report seen = parse(result.output);
  ASSERT_TRUE(seen.complete);
  ASSERT_EQ(seen.lines.size(), 2u) << result.output;
  EXPECT_EQ(seen.lines[0].priority, ANDROID_LOG_INFO);
  EXPECT_EQ(seen.lines[0].text, kTriggerLine);
  EXPECT_EQ(seen.lines[1].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(seen.lines[1].text, "[doPollPsi:N] Failed to write trigger, reason: Invalid argument.");
  EXPECT_EQ(seen.fdsAfter, seen.fdsBefore) << "the pressure descriptor is closed at the end";
}

TEST(PressureMonitorTest, ReportsEveryCrossingOfRealCpuPressure) {
  if (!kChildCanEnterUserNamespace) GTEST_SKIP() << "forked children have two threads here";
  const Report seen = runAsNamespaceRoot(
      [](int out) {
        LogCapture log;
        std::thread(doPollPsi).detach();  // never returns while the trigger is registered
        if (!zelk::testbed::waitUntil([&] { return log.count("Trigger:") > 0; }, 5s)) return 1;
        const auto start = std::chrono::steady_clock::now();
        {
          zelk::testbed::CpuPressure pressure;
          // Two events show that the wait resumes after each one.
          zelk::testbed::waitUntil(
              [&] { return log.count("psi is high") >= 2 || log.count("Failed") > 0; }, 30s);
        }
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start);
        fprintf(stderr, "waited %lld ms under pressure\n", static_cast<long long>(elapsed.count()));
        report(out, log, 0, 0);
        return 0;
      },
      60s);
  if (!seen.inNamespace) {
    ZELK_SKIP_OR_FAIL("no user namespace for the pressure trigger: " + seen.raw);
  }
  ASSERT_TRUE(seen.complete);
  ASSERT_GE(seen.lines.size(), 3u);
  EXPECT_EQ(seen.lines[0].text, kTriggerLine);
  EXPECT_GE(countText(seen, kPressureLine), 2u);
  for (const LogLine& line : seen.lines) {
    if (line.text == kPressureLine) {
      EXPECT_EQ(line.priority, ANDROID_LOG_DEBUG);
    }
    EXPECT_NE(line.priority, ANDROID_LOG_ERROR) << line.text;
  }
}

TEST(PressureMonitorTest, InterruptedPollEndsTheMonitorAndClosesItsDescriptor) {
  if (!kChildCanEnterUserNamespace) GTEST_SKIP() << "forked children have two threads here";
  const Report seen = runAsNamespaceRoot(
      [](int out) {
        struct sigaction action = {};
        action.sa_handler = [](int) {};  // no SA_RESTART, and poll is never restarted anyway
        sigaction(SIGUSR1, &action, nullptr);
        LogCapture log;
        const size_t before = zelk::testbed::openDescriptorCount();
        std::thread monitor(doPollPsi);
        zelk::testbed::waitUntil([&] { return log.count("Trigger:") > 0; }, 5s);
        // A signal that lands before the monitor reaches poll is lost; send until one is not.
        zelk::testbed::waitUntil(
            [&] {
              pthread_kill(monitor.native_handle(), SIGUSR1);
              return log.count("Failed") > 0;
            },
            5s);
        monitor.join();
        report(out, log, before, zelk::testbed::openDescriptorCount());
        return 0;
      },
      20s);
  if (!seen.inNamespace) {
    ZELK_SKIP_OR_FAIL("no user namespace for the pressure trigger: " + seen.raw);
  }
  ASSERT_TRUE(seen.complete) << "the monitor did not end";
  ASSERT_GE(seen.lines.size(), 2u);
  EXPECT_EQ(seen.lines.front().text, kTriggerLine);
  EXPECT_EQ(seen.lines.back().priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(seen.lines.back().text,
            "[doPollPsi:N] Failed to poll, reason: Interrupted system call.");
  EXPECT_EQ(seen.fdsAfter, seen.fdsBefore) << "the pressure descriptor is closed at the end";
}

}  // namespace
}  // namespace com::zelkora
