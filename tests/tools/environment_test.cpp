// The needs that every command using the kernel object checks, through the built tool.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

// A missing need names itself and exits with 1; the commands that need the kernel object and
// the library all check the same needs, in the order root, cpufreq, bpffs, pins.
class EnvironmentTest : public KernelTest {
 protected:
  void expectFailure(const Args& args, const std::string& message, bool asNobody = false) {
    const ChildResult run = runTool(args, asNobody);
    EXPECT_EQ(run.status, 1) << args[0] << ": " << run.output;
    EXPECT_TRUE(contains(run.output, "zelkcputime: " + message)) << args[0] << ": " << run.output;
  }
  void expectAllFail(const std::string& message) {
    for (const Args& args : {Args{"show", "total"}, Args{"show", "processes", "--json"},
                             Args{"status"}, Args{"start"}, Args{"reset", "total"}}) {
      expectFailure(args, message);
    }
  }
};

TEST_F(EnvironmentTest, EachMissingNeedInTurn) {
  expectAllFail(
      "no cpufreq policies in /sys/devices/system/cpu/cpufreq: this machine has no "
      "cpufreq driver");
  addMachinePolicy({1000000});
  expectAllFail(
      "the kernel object is not loaded \\(([0-9]+) of \\1 pins missing.*run `zelkcputime load` "
      "first");
  for (const Args& args : {Args{"show", "total"}, Args{"load"}, Args{"demo"}}) {
    expectFailure(args, "needs root", /*asNobody=*/true);
  }
  ASSERT_EQ(mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, nullptr), 0);
  expectAllFail("no BPF filesystem on /sys/fs/bpf: run `zelkcputime load` first");
  expectFailure({"unload"}, "nothing to unload");
}

}  // namespace
}  // namespace zelk::testbed
