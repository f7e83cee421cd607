// isTrackingCpuFreqTimeSupported against real pinned programs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

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
using zelk::testbed::objectTracepoints;
using zelk::testbed::programPinPath;

class SupportCheckTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    zelk::testbed::addPhoneTree();
  }
  zelk::testbed::Maps maps_;
};

// The kernel refreshes a pin's access time when the pin is opened, so an access time of zero
// means "never opened since it was reset".
void resetAccessTime(const std::string& path) {
  const struct timespec epoch[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), epoch, 0), 0) << path;
}

bool wasOpened(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && st.st_atime != 0;
}

TEST_F(SupportCheckTest, ChecksInOrderAndStopsAtTheFirstMissingProgram) {
  ASSERT_EQ(maps_.create(), "");
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  const auto& tracepoints = objectTracepoints();
  for (size_t missing = 0; missing < tracepoints.size(); ++missing) {
    SCOPED_TRACE("missing " + tracepoints[missing].event);
    zelk::testbed::unpinProgram(tracepoints[missing]);
    for (const auto& tp : tracepoints) {
      if (&tp != &tracepoints[missing]) resetAccessTime(programPinPath(tp));
    }

    EXPECT_FALSE(isTrackingCpuFreqTimeSupported());
    for (size_t i = 0; i < tracepoints.size(); ++i) {
      if (i == missing) continue;
      EXPECT_EQ(wasOpened(programPinPath(tracepoints[i])), i < missing) << tracepoints[i].event;
    }
    ASSERT_EQ(zelk::testbed::pinProgram(tracepoints[missing]), "");
  }
  EXPECT_TRUE(isTrackingCpuFreqTimeSupported());
}

TEST_F(SupportCheckTest, IsFalseWhenTheLibraryCannotInitialise) {
  zelk::testbed::MapOptions options;
  options.omit = {MapId::ClearTime};
  ASSERT_EQ(maps_.create(options), "");
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  zelk::testbed::LogCapture log;
  EXPECT_FALSE(isTrackingCpuFreqTimeSupported());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[initGlobals:N] Failed to open bpf map "
            "/sys/fs/bpf/map_zelkCputimeInState_clear_time_map: No such file or directory");
}

TEST_F(SupportCheckTest, RepeatedChecksLeaveNoDescriptorOpen) {
  ASSERT_EQ(maps_.create(), "");
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  zelk::testbed::LogCapture log;
  ASSERT_TRUE(isTrackingCpuFreqTimeSupported());  // opens the library's own maps once
  const size_t before = zelk::testbed::openDescriptorCount();
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(isTrackingCpuFreqTimeSupported());
  zelk::testbed::unpinProgram(objectTracepoints().back());
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(isTrackingCpuFreqTimeSupported());
  EXPECT_EQ(zelk::testbed::openDescriptorCount(), before);
  EXPECT_TRUE(log.lines().empty()) << "the check logs nothing of its own";
}

}  // namespace
}  // namespace com::zelkora
