// demo on this machine as it is, through the built tool, with and without a power model.
#include <android-base/file.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

// The main job on this machine as it is, in the demo's own namespace.
TEST(ToolDemoTest, CountsTimeAndLeavesNothingBehind) {
  if (geteuid() != 0) ZELK_SKIP_OR_FAIL("the demo needs root");
  struct stat st;
  const bool pinnedBefore = stat(kTotalPin, &st) == 0;
  const ChildResult run =
      runTool({"demo", "--seconds", "1", "--json"}, false, /*withStderr=*/false);
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output.rfind("{\"seconds\":1,\"synthetic\":", 0), 0u) << run.output;
  EXPECT_TRUE(contains(run.output, R"("total_ns":[1-9])")) << run.output;
  // The demo itself ran, so it was counted.
  EXPECT_TRUE(contains(run.output, R"(\{"name":"zelkcputime","flag":)")) << run.output;
  EXPECT_EQ(stat(kTotalPin, &st) == 0, pinnedBefore);
}

// The demo on this machine as it is, with a model: one policy 0 here (the machine's or the
// demo's synthetic one), whose frequencies the model does not have, so all its time is
// unmodelled; and a model that cannot be loaded stops it before it samples.
TEST(EnergyDemoTest, AddsTheEnergyTableAndRefusesABadModel) {
  if (geteuid() != 0) ZELK_SKIP_OR_FAIL("the demo needs root");
  const std::string csv = "/tmp/zelk-energy-demo.csv";
  ASSERT_TRUE(android::base::WriteStringToFile("0,1,1000000\n", csv));
  ChildResult run = runTool({"demo", "--seconds", "1", "--json", "--model", csv});
  unlink(csv.c_str());
  size_t policies = 0;
  if (DIR* dir = opendir(kCpufreqDir)) {
    while (const dirent* entry = readdir(dir)) policies += strncmp(entry->d_name, "policy", 6) == 0;
    closedir(dir);
  }
  if (policies <= 1) {
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(contains(run.output, ",\"energy\":\\{\"unit\":\"uJ\",\"model\":\"" + csv +
                                         "\",\"total\":\\{\"energy\":0,\"unmodelled_ns\":[1-9]"))
        << run.output;
  }
  run = runTool({"demo", "--seconds", "1", "--model", "/tmp/zelk-energy-demo-missing"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "zelkcputime: /tmp/zelk-energy-demo-missing: No such file or directory\n");
}

}  // namespace
}  // namespace zelk::testbed
