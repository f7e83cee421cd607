// The built zelkcputime, run in a child that inherits the test's private namespace: its errors,
// its commands against the kernel object, and the demo on the real machine.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "child_process.h"
#include "namespace.h"

namespace zelk::testbed {
namespace {

using Args = std::vector<std::string>;

// As root, or as nobody (setresuid clears every capability).
ChildResult runTool(const Args& args, bool asNobody = false, bool withStderr = true) {
  const auto nobody = [] {
    return setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0;
  };
  return runProgram(ZELK_TOOL_PATH, args, asNobody ? +nobody : nullptr, withStderr);
}

bool contains(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern));
}

constexpr const char kTotalPin[] = "/sys/fs/bpf/map_zelkCputimeInState_total_cpu_time_in_state_map";

// A missing need names itself and exits with 1; the commands that need the kernel object and
// the library all check the same needs, in the order root, cpufreq, bpffs, pins.
class ToolErrorTest : public KernelTest {
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

TEST_F(ToolErrorTest, EachMissingNeedInTurn) {
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

class ToolCommandTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

TEST_F(ToolCommandTest, LoadStartShowResetUnload) {
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

// Sizes are checked before anything loads; the load says what the object takes.
TEST_F(ToolErrorTest, LoadTakesMapSizes) {
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

  run = runTool({"load", "--names", "64", "--kthreads", "32", "--pids", "128"});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(contains(run.output,
                       "^loaded zelkCputimeInState \\(names 64, kthreads 32, pids 128\\): "
                       ".*; kernel memory [0-9.]+ [KM]iB \\(maps [^\n]*\\)\n$"))
      << run.output;
}

// Sums the "total_ns" numbers of a show --json output.
uint64_t totalNs(const std::string& json) {
  uint64_t sum = 0;
  static const std::regex number(R"("total_ns":([0-9]+))");
  for (std::sregex_iterator it(json.begin(), json.end(), number), end; it != end; ++it) {
    sum += std::stoull((*it)[1]);
  }
  return sum;
}

TEST_F(ToolCommandTest, FullMapsLoseNoTimeAndStatusShowsTheirFill) {
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

// Pid churn deletes keys while `status` counts them, and a walk by next key restarts at the first
// key when the one it stands on goes, counting keys twice up to the map's capacity. The test
// churns the keys as ending and starting processes would, in a map that never holds more than
// kKeys of them.
TEST_F(ToolCommandTest, StatusCountsEachEntryOnceWhileKeysComeAndGo) {
  addPolicy("policy0", {300000, 600000}, {0, 1, 2, 3});
  ASSERT_EQ(runTool({"load", "--pids", "4096"}).status, 0);
  const android::base::unique_fd map(
      bpf_obj_get("/sys/fs/bpf/map_zelkCputimeInState_pid_to_comm_map"));
  ASSERT_GE(map.get(), 0) << strerror(errno);
  bpf_map_info info = {};
  __u32 length = sizeof(info);
  ASSERT_EQ(bpf_obj_get_info_by_fd(map.get(), &info, &length), 0);
  const std::vector<char> name(info.value_size, 'z');
  constexpr uint32_t kKeys = 1000, kGone = 100;
  for (uint32_t pid = 1; pid <= kKeys; ++pid) {
    ASSERT_EQ(bpf_map_update_elem(map.get(), &pid, name.data(), BPF_ANY), 0);
  }
  // Each turn one key goes and the one that went kGone turns before comes back.
  const Child churn([&](Child&) {
    for (uint32_t pid = 1;; pid = pid % kKeys + 1) {
      const uint32_t back = (pid + kKeys - kGone - 1) % kKeys + 1;
      bpf_map_delete_elem(map.get(), &pid);
      bpf_map_update_elem(map.get(), &back, name.data(), BPF_ANY);
    }
  });
  static const std::regex entries(R"("name":"pid_to_comm_map","entries":([0-9]+))");
  uint64_t most = 0, least = kKeys;
  for (int i = 0; i < 20; ++i) {
    const ChildResult run = runTool({"status", "--json"}, false, /*withStderr=*/false);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(run.output, match, entries)) << run.output;
    most = std::max<uint64_t>(most, std::stoull(match[1]));
    least = std::min<uint64_t>(least, std::stoull(match[1]));
  }
  EXPECT_LE(most, kKeys);
  EXPECT_GE(least, kKeys - 2 * kGone);  // about kGone are gone at any moment
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
