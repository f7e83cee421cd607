// show against the kernel object through the built tool, in a session of load, start, reset
// and unload.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

using ShowCommandTest = ToolTest;

TEST_F(ShowCommandTest, LoadStartShowResetUnload) {
  addPolicy("policy0", {300000, 600000}, {0, 1, 2, 3});
  addPolicy("policy4", {500000, 800000, 1100000}, {4, 5, 6});
  // Inherited by the tool, so that its processes count as foreground.
  ASSERT_TRUE(android::base::WriteStringToFile("0", "/proc/self/oom_score_adj"));
  ChildResult run = runTool({"load"});
  ASSERT_EQ(run.status, 0) << run.output;

  run = runTool({"show", "freqs", "--json"});
  EXPECT_EQ(run.output, "{\"freqs_khz\":[[300000,600000],[500000,800000,1100000]]}\n");
  run = runTool({"show", "process", "zelkcputime"});  // nothing counted yet
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(contains(run.output, "no process has been counted yet")) << run.output;

  run = runTool({"start", "--seconds", "1"});
  ASSERT_EQ(run.status, 0) << run.output;
  // This machine's CPUs fall in the first policy, at the frequency the tree sets as current.
  run = runTool({"show", "total", "--csv"}, false, /*withStderr=*/false);
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(contains(run.output, "\ntotal,,,0,300000,[1-9][0-9]*\n")) << run.output;
  // The overflow entries are there, empty: in the JSON, not in the table.
  run = runTool({"show", "processes", "--json"});
  EXPECT_TRUE(contains(run.output, R"(\{"name":"<map overflowed>","flag":0,"total_ns":0,)"))
      << run.output;
  run = runTool({"show", "processes", "--limit", "0"});
  EXPECT_EQ(run.output.find("<map overflowed>"), std::string::npos) << run.output;
  run = runTool({"show", "processes", "--csv", "--limit", "1"});
  EXPECT_TRUE(contains(run.output,
                       "^table,name,flag,policy,freq_khz,time_ns\n"
                       "(process,[^,]+,[01],(0,300000|0,600000|1,500000|1,800000|"
                       "1,1100000),[0-9]+\n){5}$"))
      << run.output;
  // The tool's own process ran in the foreground (the oom_score_adj of 0 set above).
  run = runTool({"show", "process", "zelkcputime", "--flag", "--json"});
  EXPECT_TRUE(contains(run.output, R"("process":\{"name":"zelkcputime","flag":1,"total_ns":[1-9])"))
      << run.output;
  const uint64_t foreground = totalNs(run.output);
  // Without a class, both entries summed and no flag: a foreground process no longer reads as 0.
  run = runTool({"show", "process", "zelkcputime", "--background", "--json"});
  EXPECT_TRUE(contains(run.output, R"("process":\{"name":"zelkcputime","flag":0,"total_ns":)"))
      << run.output;
  const uint64_t background = totalNs(run.output);
  run = runTool({"show", "process", "zelkcputime", "--json"});
  EXPECT_TRUE(contains(run.output, R"("process":\{"name":"zelkcputime","total_ns":[1-9])"))
      << run.output;
  EXPECT_EQ(totalNs(run.output), foreground + background) << run.output;
  run = runTool({"show", "process", "zelkcputime"});
  EXPECT_TRUE(
      contains(run.output, "^process zelkcputime \\(foreground and background\\): [0-9.]+ s\n"))
      << run.output;
  run = runTool({"show", "process", "zelkcputime", "--csv"});
  EXPECT_TRUE(contains(run.output, "\nprocess,zelkcputime,,0,300000,[1-9][0-9]*\n")) << run.output;
  run = runTool({"show", "process", "zelkcputime", "--flag", "--background"});
  EXPECT_EQ(run.status, 2) << run.output;
  run = runTool({"status", "--json"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(contains(run.output, R"("supported":true,"tracking_pids":\[\])")) << run.output;
  // The policies that the library discovered.
  EXPECT_TRUE(contains(run.output, R"("policies":\[\{"name":"policy0","related_cpus":"0 1 2 3"\},)"
                                   R"(\{"name":"policy4","related_cpus":"4 5 6"\}\])"))
      << run.output;

  EXPECT_EQ(runTool({"reset", "total"}).status, 0);
  run = runTool({"show", "total"});  // the map is empty again
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(contains(run.output, "nothing has been counted")) << run.output;
  EXPECT_EQ(runTool({"unload"}).status, 0);
  struct stat st;
  EXPECT_NE(stat(kTotalPin, &st), 0);
}

}  // namespace
}  // namespace zelk::testbed
