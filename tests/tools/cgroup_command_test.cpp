// Time per cgroup through the built tool, against the kernel's own account of each cgroup
// (cpu.stat's usage_usec, which includes the descendants', as the tool's rows do), in cgroups
// made under the v2 mount for the test.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "background.h"
#include "clocked_spinner.h"
#include "tool_run.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::testbed {
namespace {

using std::chrono::milliseconds;
namespace lib = com::zelkora;

const std::string kDockerId(64, 'd');
const std::string kContainerdId = std::string(32, 'c') + std::string(32, 'e');
const char kPodUid[] = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";

// The test's cgroups under the v2 mount, removed at the end (children first).
class CgroupTree {
 public:
  CgroupTree() {
    mount_ = lib::getCgroupV2Mount();
    std::string self;
    android::base::ReadFileToString("/proc/self/cgroup", &self);
    for (const std::string& line : android::base::Split(self, "\n")) {
      if (android::base::StartsWith(line, "0::")) home_ = line.substr(3);
    }
    base_ = "/zelk-test-" + std::to_string(getpid());
  }
  ~CgroupTree() {
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) rmdir((mount_ + *it).c_str());
  }
  bool usable() const { return !mount_.empty() && !home_.empty(); }
  const std::string& base() const { return base_; }

  // Makes `relative` under the test's base; its path under the mount.
  std::string make(const std::string& relative) {
    const std::string path = relative.empty() ? base_ : base_ + "/" + relative;
    EXPECT_EQ(mkdir((mount_ + path).c_str(), 0755), 0) << path << ": " << strerror(errno);
    made_.push_back(path);
    return path;
  }
  bool remove(const std::string& path) { return rmdir((mount_ + path).c_str()) == 0; }

  // A spinner forked inside `path`: the test joins it for the fork only, so that the spinner
  // never runs elsewhere.
  std::unique_ptr<ClockedSpinner> spinIn(const std::string& path, int cpu, milliseconds duration) {
    join(path);
    auto spinner = std::make_unique<ClockedSpinner>("zelkcgspin", cpu, duration);
    join(home_);
    return spinner;
  }

  // The cgroup's CPU time in ns, its descendants' included.
  uint64_t usageNs(const std::string& path) const {
    std::string stat;
    android::base::ReadFileToString(mount_ + path + "/cpu.stat", &stat);
    std::smatch match;
    if (!std::regex_search(stat, match, std::regex("usage_usec ([0-9]+)"))) return 0;
    return std::stoull(match[1]) * 1000;
  }

 private:
  void join(const std::string& path) {
    ASSERT_TRUE(
        android::base::WriteStringToFile(std::to_string(getpid()), mount_ + path + "/cgroup.procs"))
        << path << ": " << strerror(errno);
  }

  std::string mount_, home_, base_;
  std::vector<std::string> made_;
};

// path -> total_ns of each row of `show cgroups --json`.
std::map<std::string, uint64_t> rowsOf(const std::string& json) {
  std::map<std::string, uint64_t> rows;
  static const std::regex row(R"re(\{"path":"([^"]*)"[^{}]*?"total_ns":([0-9]+))re");
  for (std::sregex_iterator it(json.begin(), json.end(), row), end; it != end; ++it) {
    rows[(*it)[1]] = std::stoull((*it)[2]);
  }
  return rows;
}

// The tool's time against the kernel's: within 2%, and above by no more than what interrupts and
// the hypervisor took, which the object counts and the kernel's task clocks leave out.
void expectNear(uint64_t counted, uint64_t usage, uint64_t untasked, const std::string& what) {
  EXPECT_GE(counted, usage - usage / 50) << what;
  EXPECT_LE(counted, usage + usage / 50 + untasked) << what;
  printf("%s: %.1f ms counted, %.1f ms in cpu.stat\n", what.c_str(), counted / 1e6, usage / 1e6);
}

class CgroupCommandTest : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    if (!tree_.usable()) GTEST_SKIP() << "no cgroup v2 hierarchy mounted";
    addMachinePolicy({1000000, 2000000});
  }

  CgroupTree tree_;
};

// Three siblings, one of them with a nested cgroup, all busy at once, named as Docker, a
// Kubernetes pod with a containerd container, and a systemd service name them.
TEST_F(CgroupCommandTest, EachCgroupIsItsUsageAndEachParentItsSubtree) {
  ASSERT_EQ(runTool({"load"}).status, 0);
  Background tracker(ZELK_TOOL_PATH, {"start", "--seconds", "60"});
  ASSERT_TRUE(tracker.waitFor("tracking in process", milliseconds(10000))) << tracker.output();

  const std::string base = tree_.make("");
  const std::string docker = tree_.make("docker-" + kDockerId + ".scope");
  // As the kubelet's systemd driver names a burstable pod, with dashes of the UID as '_'.
  tree_.make("kubepods.slice");
  tree_.make("kubepods.slice/kubepods-burstable.slice");
  std::string podUid = kPodUid;
  std::replace(podUid.begin(), podUid.end(), '-', '_');
  const std::string pod = tree_.make(
      "kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod" + podUid + ".slice");
  const std::string container =
      tree_.make(pod.substr(base.size() + 1) + "/cri-containerd-" + kContainerdId + ".scope");
  const std::string service = tree_.make("zelk.service");
  const uint64_t untaskedBefore = untaskedNs();
  {
    std::vector<std::unique_ptr<ClockedSpinner>> spinners;
    int cpu = 0;
    for (const std::string& path : {docker, pod, container, service}) {
      spinners.push_back(tree_.spinIn(path, cpu++ % 2, milliseconds(1500)));
      ASSERT_TRUE(spinners.back()->started());
    }
    std::this_thread::sleep_for(milliseconds(1700));
  }
  const uint64_t untasked = untaskedNs() - untaskedBefore;

  const ChildResult run = runTool({"show", "cgroups", "--json"}, false, /*withStderr=*/false);
  ASSERT_EQ(run.status, 0) << run.output;
  std::map<std::string, uint64_t> rows = rowsOf(run.output);
  for (const std::string& path : {base, docker, pod, container, service}) {
    expectNear(rows[path], tree_.usageNs(path), untasked, path);
  }
  EXPECT_GT(rows[container], 0u);
  // Each parent's row is its own time and its children's rows, from one snapshot: exactly.
  EXPECT_EQ(rows[base], rows[docker] + rows[base + "/kubepods.slice"] + rows[service]);
  EXPECT_EQ(rows[base + "/kubepods.slice"], rows[pod]);
  EXPECT_GE(rows[pod], rows[container]);
  EXPECT_GE(rows["/"], rows[base]);

  // What the names say, each in its field.
  EXPECT_TRUE(contains(run.output, "\\{\"path\":\"" + docker + "\",\"container_id\":\"" +
                                       kDockerId + "\",\"total_ns\""))
      << run.output;
  EXPECT_TRUE(contains(run.output, "\\{\"path\":\"" + container + "\",\"container_id\":\"" +
                                       kContainerdId + "\",\"pod_uid\":\"" + kPodUid + "\""))
      << run.output;
  EXPECT_TRUE(contains(run.output, "\\{\"path\":\"" + service + "\",\"unit\":\"zelk.service\""))
      << run.output;

  // Folded to the test's base: nothing below it is a row, and the base holds all of it.
  const ChildResult folded = runTool(
      {"show", "cgroups", "--json", "--depth", "1", "--match", "^/zelk-test-"}, false, false);
  const std::map<std::string, uint64_t> foldedRows = rowsOf(folded.output);
  ASSERT_EQ(foldedRows.size(), 1u) << folded.output;
  EXPECT_GE(foldedRows.at(base), rows[base]);
  // One cgroup, by its path under the mount or its full path.
  const ChildResult one = runTool({"show", "cgroup", pod}, false, false);
  EXPECT_TRUE(contains(one.output, "^cgroup " + pod + " with its descendants \\(pod " + kPodUid +
                                       "\\): [0-9.]+ s\n"))
      << one.output;
  EXPECT_EQ(tracker.stop(), 0) << tracker.output();
}

// A cgroup removed after it ran, and another made at its path: the first one's time stays, under
// its id with the path this process saw, or as a removed cgroup for a process that never saw it;
// nothing is counted twice.
TEST_F(CgroupCommandTest, ARemovedCgroupKeepsItsTimeAndItsPathReusedCountsOnce) {
  ASSERT_EQ(runTool({"load"}).status, 0);
  Background tracker(ZELK_TOOL_PATH, {"start", "--seconds", "60"});
  ASSERT_TRUE(tracker.waitFor("tracking in process", milliseconds(10000))) << tracker.output();
  tree_.make("");
  const std::string path = tree_.make("reused");
  const std::optional<uint64_t> firstId = lib::getCgroupId(path);
  ASSERT_TRUE(firstId);
  EXPECT_EQ(lib::getCgroupPath(*firstId), path);
  const uint64_t untaskedBefore = untaskedNs();
  uint64_t firstUsage = 0;
  {
    auto spinner = tree_.spinIn(path, 1, milliseconds(600));
    ASSERT_TRUE(spinner->started());
    std::this_thread::sleep_for(milliseconds(800));
  }
  firstUsage = tree_.usageNs(path);
  ASSERT_TRUE(tree_.remove(path));
  tree_.make("reused");
  const std::optional<uint64_t> secondId = lib::getCgroupId(path);
  ASSERT_TRUE(secondId);
  EXPECT_NE(*secondId, *firstId);
  {
    auto spinner = tree_.spinIn(path, 1, milliseconds(400));
    ASSERT_TRUE(spinner->started());
    std::this_thread::sleep_for(milliseconds(600));
  }
  const uint64_t untasked = untaskedNs() - untaskedBefore;
  EXPECT_EQ(tracker.stop(), 0) << tracker.output();  // the counts stand still from here

  // This process saw the first cgroup's path and keeps it for its id.
  EXPECT_EQ(lib::getCgroupPath(*firstId), path);
  const std::optional<lib::TimeInStateVector> first = lib::getCpuFreqTimesFromCgroup(*firstId);
  const std::optional<lib::TimeInStateVector> second = lib::getCpuFreqTimesFromCgroup(*secondId);
  ASSERT_TRUE(first && second);
  const auto sum = [](const lib::TimeInStateVector& times) {
    uint64_t ns = 0;
    for (const auto& policy : times)
      for (uint64_t t : policy) ns += t;
    return ns;
  };
  expectNear(sum(*first), firstUsage, untasked, "the removed cgroup");
  expectNear(sum(*second), tree_.usageNs(path), untasked, "the one at its path");

  // The tool never saw the first: its time is a removed cgroup's, the path's row the second's.
  const ChildResult run = runTool({"show", "cgroups", "--json"}, false, false);
  std::map<std::string, uint64_t> rows = rowsOf(run.output);
  EXPECT_EQ(rows[path], sum(*second)) << run.output;
  EXPECT_GE(rows["<removed cgroups>"], sum(*first)) << run.output;
  // Everything the total counted, in the root's row, the removed and the overflow entry.
  const uint64_t total = totalNs(runTool({"show", "total", "--json"}, false, false).output);
  EXPECT_EQ(rows["/"] + rows["<removed cgroups>"] + rows["<map overflowed>"], total) << run.output;
  // A clear removes every cgroup's time.
  EXPECT_EQ(runTool({"reset", "cgroups"}).status, 0);
  EXPECT_EQ(lib::getCgroupCpuFreqTimes()->size(), 0u);
}

// More cgroups than the map holds: the overflow entry takes the rest, and the rows still add up to
// the total.
TEST_F(CgroupCommandTest, CgroupsBeyondTheMapGoToItsOverflowEntry) {
  ASSERT_EQ(runTool({"load", "--cgroups", "3"}).status, 0);
  Background tracker(ZELK_TOOL_PATH, {"start", "--seconds", "60"});
  ASSERT_TRUE(tracker.waitFor("tracking in process", milliseconds(10000))) << tracker.output();
  tree_.make("");
  for (int i = 0; i < 6; ++i) {
    auto spinner = tree_.spinIn(tree_.make("c" + std::to_string(i)), i % 2, milliseconds(100));
    ASSERT_TRUE(spinner->started());
    std::this_thread::sleep_for(milliseconds(150));
  }
  EXPECT_EQ(tracker.stop(), 0) << tracker.output();

  const ChildResult run = runTool({"show", "cgroups", "--json"}, false, false);
  ASSERT_EQ(run.status, 0) << run.output;
  std::map<std::string, uint64_t> rows = rowsOf(run.output);
  EXPECT_GT(rows["<map overflowed>"], 0u) << run.output;
  const uint64_t total = totalNs(runTool({"show", "total", "--json"}, false, false).output);
  EXPECT_EQ(rows["/"] + rows["<removed cgroups>"] + rows["<map overflowed>"], total) << run.output;
  const ChildResult status = runTool({"status", "--json"}, false, false);
  EXPECT_TRUE(
      contains(status.output, R"(\{"name":"cgroup_time_in_state_map","entries":3,"capacity":3,)"))
      << status.output;

  // Without the v2 hierarchy in its namespace the tool cannot name the cgroups, and says why.
  const auto withoutV2 = +[] {
    const std::string mount = lib::getCgroupV2Mount();
    return unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           umount2(mount.c_str(), MNT_DETACH) == 0;
  };
  const ChildResult unnamed = runProgram(ZELK_TOOL_PATH, {"show", "cgroups"}, withoutV2);
  EXPECT_EQ(unnamed.status, 0) << unnamed.output;
  EXPECT_TRUE(contains(unnamed.output,
                       "note: no cgroup v2 hierarchy is mounted here, so no cgroup has a path"))
      << unnamed.output;
}

}  // namespace
}  // namespace zelk::testbed
