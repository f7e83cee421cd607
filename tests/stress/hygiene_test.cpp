// Long-lived callers: thousands of calls, failing ones included, leave the process holding
// exactly what it held before (descriptors here; memory under LeakSanitizer).
#include <gtest/gtest.h>

#include "background_threads.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "programs.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;
using zelk::testbed::openDescriptorCount;

class HygieneTest : public zelk::testbed::KernelTest {
 protected:
  zelk::testbed::NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    zelk::testbed::addMachinePolicy({100, 200});
  }
  void TearDown() override { threads_.ended(log_); }

  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
  zelk::testbed::BackgroundThreads threads_;
};

void callEveryFunction(int i) {
  const std::string name = "task" + std::to_string(i % 7);
  isNumber(name);
  getCpuFreqs();
  isTrackingCpuFreqTimeSupported();
  startTrackingCpuFreqTime();
  getTotalCpuFreqTimes();
  getProcessCpuFreqTimes();
  getKthreadCpuFreqTimes();
  getCpuFreqTimesFromProcess(name, i % 2);
  getCpuFreqTimesFromKthread(name);
  getProcessTopTimes();
  getProcessBgTimes();
  clearProcessTimes();
  clearKthreadTimes();
  clearTimesFromProcess(name, i % 2);
  clearTimesFromKthread(name);
  clearTotalCpuTime();
  clearTopAndBgTimes();
}

TEST_F(HygieneTest, ThousandsOfCallsOfEveryFunctionKeepTheDescriptors) {
  ASSERT_EQ(maps_.create(), "");
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  ASSERT_TRUE(startTrackingCpuFreqTime());
  ASSERT_TRUE(threads_.ended(log_));
  const size_t fds = openDescriptorCount();
  for (int i = 0; i < 3000; ++i) callEveryFunction(i);
  EXPECT_EQ(openDescriptorCount(), fds);
}

TEST_F(HygieneTest, RepeatedFailingInitialisationsKeepTheDescriptors) {
  zelk::testbed::MapOptions options;
  options.omit = {MapId::PidComm};  // the last map: every attempt opens the eight before it
  ASSERT_EQ(maps_.create(options), "");
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  const size_t fds = openDescriptorCount();
  for (int i = 0; i < 1000; ++i) callEveryFunction(i);
  EXPECT_EQ(openDescriptorCount(), fds + 8) << "the last attempt's eight maps, and nothing else";
  EXPECT_EQ(log_.count("Failed to open bpf map"), 1000u * 16);
}

TEST_F(HygieneTest, RetriedFailingAttachesKeepTheDescriptors) {
  ASSERT_EQ(maps_.create(), "");
  ASSERT_EQ(zelk::testbed::pinPrograms({"sched_process_fork"}), "");
  EXPECT_FALSE(startTrackingCpuFreqTime());  // attaches the first three, for good
  ASSERT_TRUE(threads_.ended(log_));
  const size_t fds = openDescriptorCount();
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(startTrackingCpuFreqTime());
  ASSERT_TRUE(threads_.ended(log_));
  EXPECT_EQ(openDescriptorCount(), fds) << "a program that failed to attach is not kept open";
  // The error text is whatever BCC leaves in errno, which is not always the kernel's EEXIST.
  EXPECT_EQ(log_.count("Failed to attach program sched_switch, "), 50u);
}

}  // namespace
}  // namespace com::zelkora
