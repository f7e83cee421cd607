// The built zelkcputime, run in a child that inherits the test's private namespace: its errors,
// its commands against the kernel object, and the demo on the real machine.
#include <android-base/file.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "child_process.h"
#include "namespace.h"
#include "policy_tree.h"

namespace zelk::testbed {
namespace {

using Args = std::vector<std::string>;

// As root, or as nobody (setresuid clears every capability); stderr to the output or dropped.
// The status is -1 when the tool did not exit by itself.
ChildResult runTool(const Args& args, bool asNobody = false, bool withStderr = true) {
  return runInChild([&](int out) {
    if (asNobody && (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)) {
      return 126;
    }
    const int err = withStderr ? out : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) return 126;
    std::vector<char*> argv = {const_cast<char*>(ZELK_TOOL_PATH)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    return 127;
  });
}

bool contains(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern));
}

constexpr const char kTotalPin[] = "/sys/fs/bpf/map_zelkCputimeInState_total_cpu_time_in_state_map";

// Each case in a fresh bpffs over an empty cpufreq directory, which it then adjusts. A missing
// need names itself and exits with 1.
class ToolErrorTest : public KernelTest {
 protected:
  void expectFailure(const Args& args, const std::string& message, bool asNobody = false) {
    const ChildResult run = runTool(args, asNobody);
    EXPECT_EQ(run.status, 1) << args[0] << ": " << run.output;
    EXPECT_TRUE(contains(run.output, "zelkcputime: " + message)) << args[0] << ": " << run.output;
  }
  // The commands that need the whole kernel object and the library.
  void expectAllFail(const std::string& message) {
    for (const Args& args : {Args{"show", "total"}, Args{"show", "processes", "--json"},
                             Args{"status"}, Args{"start"}, Args{"reset", "total"}}) {
      expectFailure(args, message);
    }
  }
};

TEST_F(ToolErrorTest, WithoutRoot) {
  addMachinePolicy({1000000});
  for (const Args& args : {Args{"show", "total"}, Args{"status"}, Args{"load"}, Args{"demo"}}) {
    expectFailure(args, "needs root", /*asNobody=*/true);
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
  expectAllFail(
      "the kernel object is not loaded \\(19 of 19 pins missing.*run `zelkcputime load` first");
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
      {"show", "total", "--limit", "x"},
      {"show", "total", "--json", "--csv"},
      {"status", "--csv"},
      {"demo", "--seconds", "0"},
      {"demo", "--seconds", "3601"},
      {"demo", "--seconds", "1.5"},
      {"demo", "--flag"},
      {"reset"},
      {"reset", "process"},
      {"load", "--bogus"},
  };
  for (const Args& args : rows) {
    const ChildResult run = runTool(args);
    EXPECT_EQ(run.status, 2) << (args.empty() ? "" : args[0]) << ": " << run.output;
  }
}

class ToolCommandTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

TEST_F(ToolCommandTest, LoadStartShowResetUnload) {
  const auto freqs = addPhoneTree();
  // Inherited by the tool, so that its processes count as foreground.
  ASSERT_TRUE(android::base::WriteStringToFile("0", "/proc/self/oom_score_adj"));
  ChildResult run = runTool({"load"});
  ASSERT_EQ(run.status, 0) << run.output;

  run = runTool({"show", "freqs", "--json"});
  std::string lists;
  for (const auto& list : freqs) {
    std::string numbers;
    for (uint64_t khz : list) numbers += (numbers.empty() ? "" : ",") + std::to_string(khz);
    lists += (lists.empty() ? "[" : ",[") + numbers + "]";
  }
  EXPECT_EQ(run.output, "{\"freqs_khz\":[" + lists + "]}\n");
  run = runTool({"show", "total"});  // nothing counted yet: the map is empty
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(contains(run.output, "nothing has been counted")) << run.output;
  run = runTool({"show", "process", "zelkcputime"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(contains(run.output, "no process has been counted yet")) << run.output;

  run = runTool({"start", "--seconds", "1"});
  ASSERT_EQ(run.status, 0) << run.output;
  // This machine's CPUs fall in the first policy, at the frequency the tree sets as current.
  run = runTool({"show", "total", "--csv"}, false, /*withStderr=*/false);
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(contains(run.output, "\ntotal,,,0,300000,[1-9][0-9]*\n")) << run.output;
  run = runTool({"show", "processes", "--csv", "--limit", "1"});
  EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1 + 18 + 17 + 19) << run.output;
  // The tool's own process ran in the foreground (the oom_score_adj of 0 set above).
  run = runTool({"show", "process", "zelkcputime", "--flag", "--json"});
  EXPECT_TRUE(contains(run.output, R"("process":\{"name":"zelkcputime","flag":1,"total_ns":[1-9])"))
      << run.output;
  run = runTool({"status", "--json"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(contains(run.output, R"("supported":true,"tracking_pids":\[\])")) << run.output;

  EXPECT_EQ(runTool({"reset", "total"}).status, 0);
  EXPECT_EQ(runTool({"show", "total"}).status, 1);
  EXPECT_EQ(runTool({"unload"}).status, 0);
  struct stat st;
  EXPECT_NE(stat(kTotalPin, &st), 0);
}

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

}  // namespace
}  // namespace zelk::testbed
