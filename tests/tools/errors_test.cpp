// The tool's errors: each missing need names itself and exits with 1; a wrong command line
// exits with 2. Each case runs in a private namespace with a fresh bpffs and an empty cpufreq
// directory, which the case then adjusts.
#include <sys/mount.h>

#include <string>
#include <vector>

#include "namespace.h"
#include "policy_tree.h"
#include "tool_run.h"

namespace zelk::testbed {
namespace {

using Args = std::vector<std::string>;

// The commands that need the whole kernel object and the library.
const Args kCommandsNeedingAll[] = {
    {"show", "total"}, {"show", "processes", "--json"}, {"status"}, {"start"}, {"reset", "total"},
};

class ToolErrorTest : public KernelTest {
 protected:
  // The message starts with `message` and goes on with `hint`.
  void expectFailure(const Args& args, const std::string& message, const std::string& hint = "",
                     ToolUser user = ToolUser::kRoot) {
    const ToolRun run = runTool(args, user);
    EXPECT_EQ(run.status, 1) << args[0] << ": " << run.output;
    const size_t start = run.output.find("zelkcputime: " + message);
    EXPECT_NE(start, std::string::npos) << args[0] << ": " << run.output;
    EXPECT_NE(run.output.find(hint, start), std::string::npos) << args[0] << ": " << run.output;
  }
  void expectAllFail(const std::string& message, const std::string& hint = "") {
    for (const Args& args : kCommandsNeedingAll) expectFailure(args, message, hint);
  }
};

TEST_F(ToolErrorTest, WithoutRoot) {
  addMachinePolicy({1000000});
  for (const Args& args : {Args{"show", "total"}, Args{"status"}, Args{"load"}, Args{"demo"}}) {
    expectFailure(args, "needs root", "", ToolUser::kNobody);
  }
}

TEST_F(ToolErrorTest, WithoutCpufreqPolicies) {
  expectAllFail(
      "no cpufreq policies in /sys/devices/system/cpu/cpufreq: this machine has no cpufreq "
      "driver");
}

TEST_F(ToolErrorTest, WithoutBpffs) {
  addMachinePolicy({1000000});
  ASSERT_EQ(mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, nullptr), 0);
  expectAllFail("no BPF filesystem on /sys/fs/bpf: run `zelkcputime load` first");
  expectFailure({"unload"}, "nothing to unload");
}

TEST_F(ToolErrorTest, WithoutPins) {
  addMachinePolicy({1000000});
  expectAllFail("the kernel object is not loaded (19 of 19 pins missing",
                "run `zelkcputime load` first");
}

TEST(ToolUsageTest, WrongCommandLinesExitWithTwo) {
  const Args rows[] = {
      {},
      {"frobnicate"},
      {"show"},
      {"show", "everything"},
      {"show", "process"},
      {"show", "total", "extra"},
      {"show", "kthread", "a", "--flag"},
      {"show", "total", "--limit"},
      {"show", "total", "--limit", "-1"},
      {"show", "total", "--json", "--csv"},
      {"status", "--csv"},
      {"demo", "--seconds", "0"},
      {"demo", "--seconds", "3601"},
      {"demo", "--flag"},
      {"reset"},
      {"reset", "process"},
      {"load", "--bogus"},
  };
  for (const Args& args : rows) {
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.status, 2) << (args.empty() ? "" : args[0]) << ": " << run.output;
  }
}

}  // namespace
}  // namespace zelk::testbed
