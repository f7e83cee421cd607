// load through the built tool: its map sizes and what the object takes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

using LoadCommandTest = KernelTest;

// Sizes are checked before anything loads; the load says what the object takes.
TEST_F(LoadCommandTest, LoadTakesMapSizes) {
  ChildResult run = runTool({"load", "--kthreads", "12x"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.output.rfind("zelkcputime: --kthreads takes a number of entries from 1 to "
                             "4294967295\n",
                             0),
            0u)
      << run.output;
  run = runTool({"show", "total", "--names", "64"});
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(contains(run.output, "zelkcputime: --names does not apply to show")) << run.output;
  run = runTool({"load", "--pids", "4294967295"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output,
            "zelkcputime: the kernel refused pid_to_adj_map with 4294967295 entries (--pids): "
            "Argument list too long\n");
  struct stat st;
  EXPECT_NE(stat(kTotalPin, &st), 0);

  run = runTool({"load", "--names", "64", "--kthreads", "32", "--pids", "128", "--cgroups", "16"});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(contains(run.output,
                       "^loaded zelkCputimeInState \\(names 64, kthreads 32, pids 128, cgroups "
                       "16\\): "
                       ".*; kernel memory [0-9.]+ [KM]iB \\(maps [^\n]*\\)\n$"))
      << run.output;
}

}  // namespace
}  // namespace zelk::testbed
