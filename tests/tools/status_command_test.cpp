// status through the built tool: how full the maps are, and what the overflow entries hold.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

using StatusCommandTest = ToolTest;

TEST_F(StatusCommandTest, FullMapsLoseNoTimeAndStatusShowsTheirFill) {
  addPolicy("policy0", {300000, 600000}, {0, 1, 2, 3});
  // Far fewer names than this machine runs in a second, kernel threads included.
  ChildResult run = runTool({"load", "--names", "8", "--kthreads", "8"});
  ASSERT_EQ(run.status, 0) << run.output;
  // While tracking runs, more process names than the map holds: short children of their own.
  const pid_t filler = fork();
  if (filler == 0) {
    for (int i = 0; i < 400; ++i) {
      if (fork() == 0) {
        const std::string name = "zelkfill" + std::to_string(i);
        prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
        for (const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
             std::chrono::steady_clock::now() < end;) {
        }
        _exit(0);
      }
      wait(nullptr);
      usleep(2000);
    }
    _exit(0);
  }
  ASSERT_GT(filler, 0);
  ASSERT_EQ(runTool({"start", "--seconds", "1"}).status, 0);
  waitpid(filler, nullptr, 0);

  run = runTool({"show", "total", "--json"}, false, /*withStderr=*/false);
  const uint64_t total = totalNs(run.output);
  const std::string processes =
      runTool({"show", "processes", "--json"}, false, /*withStderr=*/false).output;
  const std::string kthreads =
      runTool({"show", "kthreads", "--json"}, false, /*withStderr=*/false).output;
  EXPECT_TRUE(contains(processes, R"("name":"<map overflowed>")")) << processes;
  // Holding time, it is a row of the table too.
  run = runTool({"show", "processes", "--limit", "0"});
  EXPECT_TRUE(contains(run.output, "\n<map overflowed> +(yes|no) +[0-9.]*[1-9]")) << run.output;
  const uint64_t counted = totalNs(processes) + totalNs(kthreads);
  EXPECT_GE(counted, 0.995 * total) << processes << kthreads;
  EXPECT_LE(counted, total);

  run = runTool({"status", "--json"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(contains(run.output,
                       R"(\{"name":"process_time_in_state_map","entries":8,"capacity":8,)"
                       R"("overflow_ns":[1-9][0-9]*\})"))
      << run.output;
  EXPECT_TRUE(
      contains(run.output, R"("overflow":\{"untracked_processes":0,"overflowed_updates":[1-9])"))
      << run.output;
  run = runTool({"status"});
  EXPECT_TRUE(
      contains(run.output, "\nwarning: process_time_in_state_map is 100.0% full \\(8 of 8\\)"))
      << run.output;

  // A reset clears the overflow entry with its map.
  ASSERT_EQ(runTool({"reset", "processes"}).status, 0);
  run = runTool({"status", "--json"});
  EXPECT_TRUE(contains(run.output, R"("name":"process_time_in_state_map","entries":0,)"))
      << run.output;
  EXPECT_EQ(runTool({"unload"}).status, 0);
}

}  // namespace
}  // namespace zelk::testbed
