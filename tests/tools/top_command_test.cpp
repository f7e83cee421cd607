// zelkcputime top in the test bed: its batch frames against busy children and a reset made by
// another process, and its screen under tmux.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "background.h"
#include "child_process.h"
#include "clocked_spinner.h"
#include "maps.h"
#include "namespace.h"
#include "serve_bed.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::testbed {
namespace {

using std::chrono::milliseconds;
using Args = std::vector<std::string>;

// Spins under `name` for `duration`, then exits. As a real-time task it keeps one CPU (less the
// kernel's real-time throttling, 5% by default) even while the bed's shared cores run other work,
// which takes a fair share from any niceness in another cgroup.
pid_t busyChild(const char* name, milliseconds duration) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_NAME, name, 0, 0, 0);
  const sched_param param = {.sched_priority = 1};
  if (sched_setscheduler(0, SCHED_FIFO, &param) != 0) setpriority(PRIO_PROCESS, 0, -20);
  // Off the CPU for a moment every 5 ms: time is counted when a task switches out, and a
  // real-time task that never yields would be counted in lumps at the throttle's pace.
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
    const auto slice = std::chrono::steady_clock::now() + milliseconds(5);
    while (std::chrono::steady_clock::now() < slice) {
    }
    usleep(20);
  }
  _exit(0);
}

constexpr char kFrameStart[] = "zelkcputime top - ";

std::vector<std::string> framesOf(const std::string& output) {
  std::vector<std::string> frames;
  for (size_t at = output.find(kFrameStart); at != std::string::npos;) {
    const size_t next = output.find(kFrameStart, at + 1);
    frames.push_back(output.substr(at, next == std::string::npos ? next : next - at));
    at = next;
  }
  return frames;
}

// The CPU% of `name`'s row, or -1 when the frame has none.
double cpuOf(const std::string& frame, const std::string& name) {
  std::smatch match;
  if (!std::regex_search(frame, match, std::regex("\n" + name + " +[fb]g +([0-9.]+) "))) return -1;
  return std::stod(match[1].str());
}

// Every row's CPU% and the system's, as printed.
std::vector<double> allCpuValues(const std::string& frame) {
  std::vector<double> values;
  const std::regex row("\n\\S+ +[fb]g +(\\S+) ");
  for (auto it = std::sregex_iterator(frame.begin(), frame.end(), row);
       it != std::sregex_iterator(); ++it) {
    values.push_back(std::stod((*it)[1].str()));
  }
  std::smatch system;
  if (std::regex_search(frame, system, std::regex("system CPU (\\S+)% of"))) {
    values.push_back(std::stod(system[1].str()));
  }
  return values;
}

class TopBatchTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addMachinePolicy({1000000, 2000000});
  }
};

// A spinner that keeps CPU 1 while the tool runs on CPU 0: each frame settles the CPUs before it
// reads, so each shows the spinner's whole interval, not the slices that happened to end in it.
TEST_F(TopBatchTest, SpinnerShowsAtFullCpuInEveryFrameThenLeavesTheRows) {
  if (possibleCpus() < 2) GTEST_SKIP() << "needs two CPUs";
  pinToCpu(0, 0);
  // The spinner starts at the first frame: loading and verifying the object before it takes
  // seconds on a busy machine.
  Background top(ZELK_TOOL_PATH, {"top", "--batch", "--interval", "1", "--iterations", "6"},
                 /*withStderr=*/false);
  ASSERT_TRUE(top.waitFor(kFrameStart, milliseconds(30000))) << top.output();
  std::optional<ClockedSpinner> spinner(std::in_place, "zelktopbusy", 1, milliseconds(2500));
  ASSERT_TRUE(spinner->started());
  ASSERT_EQ(top.wait(milliseconds(30000)), 0) << top.output();
  spinner.reset();
  const std::vector<std::string> frames = framesOf(top.output());
  ASSERT_EQ(frames.size(), 6u) << top.output();
  std::vector<double> shown;
  for (const std::string& frame : frames) {
    const double cpu = cpuOf(frame, "zelktopbusy");
    if (cpu >= 0) shown.push_back(cpu);
  }
  // The last frame that shows it holds the end of its run only; each frame before is a whole
  // interval of its spinning.
  ASSERT_GE(shown.size(), 2u) << top.output();
  for (size_t i = 0; i + 1 < shown.size(); ++i) {
    EXPECT_GE(shown[i], 95) << top.output();
    EXPECT_LE(shown[i], 105) << top.output();
  }
  EXPECT_LT(cpuOf(frames.back(), "zelktopbusy"), 0) << frames.back();
  EXPECT_LT(cpuOf(frames[frames.size() - 2], "zelktopbusy"), 0) << frames[frames.size() - 2];
}

// The spinner moved into a fresh cgroup v2: that cgroup's row, which no other task shares, shows
// it keeping its CPU in each frame.
TEST_F(TopBatchTest, CgroupOfASpinnerShowsItsCpu) {
  if (possibleCpus() < 2) GTEST_SKIP() << "needs two CPUs";
  const std::string mount = com::zelkora::getCgroupV2Mount();
  if (mount.empty()) ZELK_SKIP_OR_FAIL("no cgroup v2 hierarchy is mounted");
  pinToCpu(0, 0);
  const std::string name = "/zelktopcg" + std::to_string(getpid());
  ASSERT_EQ(mkdir((mount + name).c_str(), 0755), 0) << strerror(errno);
  // From the first frame on, as above.
  Background top(ZELK_TOOL_PATH,
                 {"top", "--cgroups", "--batch", "--interval", "1", "--iterations", "3"},
                 /*withStderr=*/false);
  ASSERT_TRUE(top.waitFor(kFrameStart, milliseconds(30000))) << top.output();
  std::optional<ClockedSpinner> spinner(std::in_place, "zelktopcg", 1, milliseconds(8000));
  ASSERT_TRUE(spinner->started());
  EXPECT_TRUE(android::base::WriteStringToFile(std::to_string(spinner->pid()),
                                               mount + name + "/cgroup.procs"));
  const int status = top.wait(milliseconds(30000));
  spinner.reset();
  EXPECT_EQ(rmdir((mount + name).c_str()), 0) << strerror(errno);
  ASSERT_EQ(status, 0) << top.output();
  std::vector<std::string> frames = framesOf(top.output());
  ASSERT_EQ(frames.size(), 3u) << top.output();
  frames.erase(frames.begin());
  for (const std::string& frame : frames) {
    std::smatch row;
    ASSERT_TRUE(std::regex_search(frame, row, std::regex("\n +([0-9.]+) .*  " + name + "\n")))
        << frame;
    EXPECT_GE(std::stod(row[1].str()), 95) << frame;
    EXPECT_LE(std::stod(row[1].str()), 105) << frame;
  }
}

// CPU 1 offline, as /sys/devices/system/cpu/online says with a file bound over it here, while
// the policy's related_cpus still lists it. A spinner keeps a CPU busy: the system and the
// policy are busy out of the one online CPU, not out of both.
TEST_F(TopBatchTest, CpuUseIsOutOfTheOnlineCpus) {
  if (possibleCpus() < 2) GTEST_SKIP() << "needs two possible CPUs";
  char list[] = "/tmp/zelk-online-XXXXXX";
  const int fd = mkstemp(list);
  ASSERT_GE(fd, 0);
  close(fd);
  ASSERT_TRUE(android::base::WriteStringToFile("0\n", list));
  ASSERT_EQ(mount(list, "/sys/devices/system/cpu/online", nullptr, MS_BIND, nullptr), 0)
      << strerror(errno);
  unlink(list);
  const pid_t child = busyChild("zelktoponline", milliseconds(3500));
  ASSERT_GT(child, 0);
  const ChildResult run =
      runProgram(ZELK_TOOL_PATH, {"top", "--batch", "--interval", "1", "--iterations", "3"},
                 nullptr, /*withStderr=*/false);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(run.status, 0) << run.output;
  const std::vector<std::string> frames = framesOf(run.output);
  ASSERT_EQ(frames.size(), 3u) << run.output;
  for (const std::string& frame : frames) {
    std::smatch system, policy;
    ASSERT_TRUE(std::regex_search(frame, system, std::regex("system CPU (\\S+)% of (\\d+) CPU")))
        << frame;
    EXPECT_EQ(system[2].str(), "1") << frame;
    // A spinner alone on its CPU: about 100%, less where a sanitizer slows the tool beside it;
    // dividing by both CPUs would show about 50%.
    EXPECT_GE(std::stod(system[1].str()), 75) << frame;
    ASSERT_TRUE(std::regex_search(frame, policy, std::regex("policy 0 \\[.*\\] +(\\S+)% busy")))
        << frame;
    EXPECT_GE(std::stod(policy[1].str()), 75) << frame;
  }
}

// The object loaded by `load` is shared: a `reset` by another process between two frames shows as
// counting restarted, never as a negative or wrapped-around value.
TEST_F(TopBatchTest, ResetByAnotherProcessGivesSaneRows) {
  ASSERT_EQ(runProgram(ZELK_TOOL_PATH, {"load"}).status, 0);
  const pid_t child = busyChild("zelktopreset", milliseconds(6000));
  ASSERT_GT(child, 0);
  Background top(ZELK_TOOL_PATH, {"top", "--batch", "--interval", "1", "--iterations", "4"},
                 /*withStderr=*/false);
  ASSERT_GT(top.pid(), 0);
  std::this_thread::sleep_for(milliseconds(2200));  // after its first frames
  for (const char* what : {"processes", "total"}) {
    EXPECT_EQ(runProgram(ZELK_TOOL_PATH, {"reset", what}).status, 0) << what;
  }
  const int status = top.wait(milliseconds(10000));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  runProgram(ZELK_TOOL_PATH, {"unload"});
  const std::string& output = top.output();
  ASSERT_EQ(status, 0) << output;
  const std::vector<std::string> frames = framesOf(output);
  ASSERT_EQ(frames.size(), 4u) << output;
  bool resetSeen = false;
  for (const std::string& frame : frames) {
    resetSeen = resetSeen || frame.find("(total reset meanwhile)") != std::string::npos;
    for (double value : allCpuValues(frame)) {
      EXPECT_GE(value, 0) << frame;
      EXPECT_LE(value, 100.0 * sysconf(_SC_NPROCESSORS_CONF) + 1) << frame;
    }
    EXPECT_GT(cpuOf(frame, "zelktopreset"), 0) << frame;
  }
  EXPECT_TRUE(resetSeen) << output;
}

// The exporter running as a service and top opened for a look: top reads what serve's tracking
// counts, as show does, rather than attaching the programs again, which the kernel refuses
// (PERF_EVENT_IOC_SET_BPF: File exists) while serve holds them.
class TopBesideServeTest : public TopBatchTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true, .network = true}; }
};

TEST_F(TopBesideServeTest, ReadsWhatServeTracks) {
  Background serve(ZELK_TOOL_PATH, {"serve"});
  ASSERT_TRUE(serve.waitFor("serving http://", milliseconds(30000))) << serve.output();
  const pid_t child = busyChild("zelktopserve", milliseconds(3500));
  ASSERT_GT(child, 0);
  const ChildResult run =
      runProgram(ZELK_TOOL_PATH, {"top", "--batch", "--interval", "1", "--iterations", "2"});
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(run.status, 0) << run.output;
  const std::vector<std::string> frames = framesOf(run.output);
  ASSERT_EQ(frames.size(), 2u) << run.output;
  for (const std::string& frame : frames) {
    EXPECT_GE(cpuOf(frame, "zelktopserve"), 50) << frame;
    EXPECT_TRUE(
        std::regex_search(frame, std::regex("tracked by process " + std::to_string(serve.pid()))))
        << frame;
  }
  // A second tracker is refused with the one that runs named; serve goes on meanwhile.
  const ChildResult start = runProgram(ZELK_TOOL_PATH, {"start", "--seconds", "1"});
  EXPECT_EQ(start.status, 1) << start.output;
  EXPECT_TRUE(std::regex_search(
      start.output,
      std::regex("zelkcputime: tracking already runs in process " + std::to_string(serve.pid()))))
      << start.output;
  EXPECT_EQ(httpRequest(10410, "GET", "/metrics").status, 200);
  EXPECT_EQ(serve.stop(), 0) << serve.output();

  // The other way round: serve beside start serves what start's tracking counts.
  Background tracker(ZELK_TOOL_PATH, {"start"});
  ASSERT_TRUE(tracker.waitFor("tracking in process", milliseconds(10000))) << tracker.output();
  Background beside(ZELK_TOOL_PATH, {"serve"});
  ASSERT_TRUE(beside.waitFor("serving http://", milliseconds(30000))) << beside.output();
  EXPECT_TRUE(std::regex_search(beside.output(),
                                std::regex("tracking in process " + std::to_string(tracker.pid()) +
                                           " \\(another process\\)")))
      << beside.output();
  const HttpReply reply = httpRequest(10410, "GET", "/metrics");
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_TRUE(
      std::regex_search(reply.body, std::regex("\nzelk_cpu_seconds_total\\{[^}]*\\} [0-9.]*[1-9]")))
      << reply.body;
  EXPECT_EQ(beside.stop(), 0) << beside.output();
  EXPECT_EQ(tracker.stop(), 0) << tracker.output();
}

// The view must not disturb what it measures: at the default interval, with 500 process names in
// the maps, its own CPU use (snapshots, differences and frames) stays under 1% of one CPU.
TEST_F(TopBatchTest, OwnCostAtFiveHundredEntriesIsUnderOnePercent) {
  ASSERT_EQ(runProgram(ZELK_TOOL_PATH, {"load"}).status, 0);
  // top tracks in its own process: the named children run while it does.
  Background top(ZELK_TOOL_PATH, {"top", "--batch", "--iterations", "4"}, /*withStderr=*/false);
  ASSERT_GT(top.pid(), 0);
  std::this_thread::sleep_for(milliseconds(500));
  for (int i = 0; i < 500; ++i) {
    const pid_t named = fork();
    ASSERT_GE(named, 0);
    if (named == 0) {
      const std::string name = "zelkn" + std::to_string(i);
      prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
      usleep(1000);
      _exit(0);
    }
    waitpid(named, nullptr, 0);
  }
  const int status = top.wait(milliseconds(20000));
  const ChildResult rows = runProgram(ZELK_TOOL_PATH, {"show", "processes", "--csv"});
  runProgram(ZELK_TOOL_PATH, {"unload"});
  const std::string& output = top.output();
  ASSERT_EQ(status, 0) << output;
  const size_t entries =
      static_cast<size_t>(std::count(rows.output.begin(), rows.output.end(), '\n'));
  EXPECT_GE(entries, 500u) << rows.output.substr(0, 500);
  const std::vector<std::string> frames = framesOf(output);
  ASSERT_EQ(frames.size(), 4u) << output;
  std::smatch self;
  ASSERT_TRUE(std::regex_search(frames.back(), self, std::regex("self ([0-9.]+)%")));
  printf("own CPU over 4 frames of 2 s with %zu entries: %s%% of one CPU\n", entries,
         self[1].str().c_str());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // Instrumented builds cost several times more per instruction; the target is the shipped one.
  EXPECT_LT(std::stod(self[1].str()), 1.0);
#endif
}

// The interactive screen in a tmux pane: keys typed with send-keys, the screen read with
// capture-pane.
class TopScreenTest : public TopBatchTest {
 protected:
  void TearDown() override { tmux({"kill-server"}); }
  std::string tmux(Args args) {
    args.insert(args.begin(), {"-L", "zelktop" + std::to_string(getpid())});
    return runProgram("/usr/bin/tmux", args).output;
  }
  // The pane's text once `pattern` shows on it, or the last one read after 10 s.
  std::string awaitScreen(const std::string& pattern) {
    std::string screen;
    for (int i = 0; i < 100; ++i) {
      screen = tmux({"capture-pane", "-p", "-t", "top"});
      if (std::regex_search(screen, std::regex(pattern))) break;
      std::this_thread::sleep_for(milliseconds(100));
    }
    return screen;
  }
  // Then its exit status and, with `stty`, the terminal's modes (too long for a small pane).
  void startTop(const std::string& size, bool stty) {
    const std::string command = std::string(ZELK_TOOL_PATH) + " top --interval 0.5; echo exit=$?;" +
                                (stty ? " stty -a;" : "") + " sleep 60";
    const size_t x = size.find('x');
    tmux({"new-session", "-d", "-s", "top", "-x", size.substr(0, x), "-y", size.substr(x + 1),
          command});
  }
};

TEST_F(TopScreenTest, HeaderRowKeysAndQuitLeaveTheTerminalUsable) {
  const pid_t child = busyChild("zelktopscreen", milliseconds(15000));
  ASSERT_GT(child, 0);
  startTop("100x30", /*stty=*/true);
  std::string screen = awaitScreen("zelktopscreen +[fb]g +[0-9.]+");
  EXPECT_TRUE(std::regex_search(screen, std::regex("zelkcputime top - .* system CPU "))) << screen;
  EXPECT_TRUE(std::regex_search(screen, std::regex("policy 0 \\[[.=# ]+\\]"))) << screen;
  EXPECT_TRUE(std::regex_search(screen, std::regex("\nPROCESS +FG +CPU%"))) << screen;
  EXPECT_TRUE(std::regex_search(screen, std::regex("zelktopscreen +[fb]g +[0-9.]+"))) << screen;

  tmux({"send-keys", "-t", "top", "f"});
  screen = awaitScreen("sort: frequency");
  EXPECT_TRUE(std::regex_search(screen, std::regex("sort: frequency"))) << screen;
  tmux({"send-keys", "-t", "top", "k"});
  screen = awaitScreen("\nKTHREAD +CPU%");
  EXPECT_TRUE(std::regex_search(screen, std::regex("\nKTHREAD +CPU%"))) << screen;
  EXPECT_FALSE(std::regex_search(screen, std::regex("zelktopscreen"))) << screen;
  // g: the cgroups instead, the root among them.
  tmux({"send-keys", "-t", "top", "g"});
  const std::string cgroups = "\n +CPU% +AVG MHz +BANDS +CGROUP\n.*  /\n";
  screen = awaitScreen(cgroups);
  EXPECT_TRUE(std::regex_search(screen, std::regex(cgroups))) << screen;

  tmux({"send-keys", "-t", "top", "q"});
  screen = awaitScreen("exit=[0-9]+[^]*\\bspeed\\b");
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(std::regex_search(screen, std::regex("exit=0\\b"))) << screen;
  // Cooked mode again: line editing and echo, as before the view took the terminal.
  EXPECT_TRUE(std::regex_search(screen, std::regex("(^|\\s)icanon\\b"))) << screen;
  EXPECT_TRUE(std::regex_search(screen, std::regex("(^|\\s)echo\\b"))) << screen;
}

TEST_F(TopScreenTest, TooSmallATerminalGetsAMessage) {
  startTop("40x8", /*stty=*/false);
  const std::string screen = awaitScreen("terminal too small");
  EXPECT_TRUE(std::regex_search(screen, std::regex("terminal too small: 40x8, top needs at")))
      << screen;
  EXPECT_EQ(screen.find("PROCESS"), std::string::npos) << screen;
  tmux({"send-keys", "-t", "top", "q"});
  EXPECT_TRUE(std::regex_search(awaitScreen("exit="), std::regex("exit=0\\b")));
}

}  // namespace
}  // namespace zelk::testbed
