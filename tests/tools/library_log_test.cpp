// The library's log lines as the tool shows them: real failures as they are, expected conditions
// as one note of the tool's own, or not at all; everything with -v.
#include "commands/library_log.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "child_process.h"

namespace zelk::cli {
namespace {

// What the tool writes to stderr for the library's lines, in a child of its own (the logger and
// its state are process-wide).
std::string shown(bool verbose) {
  return zelk::testbed::runInChild([verbose](int out) {
           dup2(out, STDERR_FILENO);
           routeLibraryLog(verbose);
           for (int i = 0; i < 2; ++i) {
             __android_log_print(
                 ANDROID_LOG_ERROR, "libzelkcpufreqtime",
                 "[doPollPsi:12] Failed to write trigger, reason: Invalid argument.");
           }
           __android_log_print(ANDROID_LOG_ERROR, "libzelkcpufreqtime",
                               "[doInitMap:54] Failed to open /proc/4242/comm.");
           __android_log_print(ANDROID_LOG_ERROR, "libzelkcpufreqtime",
                               "[initGlobals:70] Failed to open /sys/fs/bpf/map_x.");
           return 0;
         })
      .output;
}

TEST(LibraryLogTest, ExpectedConditionsAreNotedOnceOrLeftOutUnlessVerbose) {
  const std::string quiet = shown(/*verbose=*/false);
  EXPECT_EQ(quiet,
            "zelkcputime: note: the kernel refused a CPU pressure trigger (Invalid argument; "
            "setting one needs CAP_SYS_RESOURCE), so the library's pressure events are off; "
            "counting is unaffected (-v shows the library's line)\n"
            "libzelkcpufreqtime: [initGlobals:70] Failed to open /sys/fs/bpf/map_x.\n");
  const std::string verbose = shown(/*verbose=*/true);
  EXPECT_NE(verbose.find("[doInitMap:54] Failed to open /proc/4242/comm."), std::string::npos)
      << verbose;
  EXPECT_NE(verbose.find("[doPollPsi:12] Failed to write trigger"), std::string::npos) << verbose;
}

}  // namespace
}  // namespace zelk::cli
