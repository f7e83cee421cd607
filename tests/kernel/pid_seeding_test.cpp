// The seeding pass of the background thread: on the real /proc through the tracking start, and
// on a /proc tree of the test's own (a tmpfs mounted over /proc in its private namespace) for the
// entries that a real /proc cannot be made to hold.
#include "kernel/pid_seeding.h"

#include <android-base/file.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "accounting/clock.h"
#include "background_threads.h"
#include "core/map_records.h"
#include "core/state.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "programs.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using namespace std::chrono_literals;
using zelk::testbed::MapId;

// The name as the pass stores it: at most 14 characters, zero bytes up to 16.
std::string storedName(const std::string& name) {
  std::string stored = name.substr(0, 14);
  stored.resize(16, '\0');
  return stored;
}

class PidSeedingTest : public zelk::testbed::KernelTest {
 protected:
  zelk::testbed::NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
    zelk::testbed::addPolicy("policy0", {300000, 600000}, {0});
  }
  // The background thread uses the library's map descriptors; it must not outlive them.
  void TearDown() override { threads_.ended(log_); }

  // Starts tracking and waits until the background thread has finished seeding (the monitor's
  // first line follows the pass). Returns clock readings taken around it.
  std::pair<uint64_t, uint64_t> startAndSeed() {
    EXPECT_EQ(zelk::testbed::pinPrograms(), "");
    const uint64_t before = getTimeSinceBoot();
    EXPECT_TRUE(startTrackingCpuFreqTime());
    EXPECT_TRUE(zelk::testbed::waitUntil([&] { return log_.count("Trigger:") > 0; }, 10s));
    return {before, getTimeSinceBoot()};
  }

  std::map<int32_t, std::string> names() const {
    std::map<int32_t, std::string> entries;
    forEach(MapId::PidComm, [&](int fd, int32_t pid) {
      process_info_t value;
      zelk::testbed::lookup(fd, &pid, &value);
      entries[pid] = std::string(value.comm, sizeof(value.comm));
    });
    return entries;
  }
  std::map<int32_t, int16_t> adjs() const {
    std::map<int32_t, int16_t> entries;
    forEach(MapId::PidAdj,
            [&](int fd, int32_t pid) { zelk::testbed::lookup(fd, &pid, &entries[pid]); });
    return entries;
  }
  std::map<int32_t, uint64_t> updateTimes() const {
    std::map<int32_t, uint64_t> entries;
    forEach(MapId::PidAdjUpdate,
            [&](int fd, int32_t pid) { zelk::testbed::lookup(fd, &pid, &entries[pid]); });
    return entries;
  }

  zelk::testbed::Maps maps_;
  zelk::testbed::LogCapture log_;
  zelk::testbed::BackgroundThreads threads_;

 private:
  void forEach(MapId id, const std::function<void(int, int32_t)>& visit) const {
    int32_t pid;
    const void* previous = nullptr;
    while (bpf_map_get_next_key(maps_.fd(id), previous, &pid) == 0) {
      visit(maps_.fd(id), pid);
      previous = &pid;
    }
  }
};

std::string readLine(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
  return text.substr(0, text.find('\n'));
}

// A forked process with a known 15-character name and oom_score_adj, alive until destroyed.
class NamedChild {
 public:
  NamedChild(const char* name, int adj) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(release_, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(release_[1]);
      prctl(PR_SET_NAME, name);
      const bool ok =
          android::base::WriteStringToFile(std::to_string(adj), "/proc/self/oom_score_adj");
      const char reply = ok ? 'y' : 'n';
      if (write(ready[1], &reply, 1) != 1) _exit(1);
      char none;
      while (read(release_[0], &none, 1) > 0) {
      }
      _exit(0);
    }
    close(ready[1]);
    close(release_[0]);
    char reply = 0;
    ready_ = pid_ > 0 && read(ready[0], &reply, 1) == 1 && reply == 'y';
    close(ready[0]);
  }
  ~NamedChild() {
    close(release_[1]);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  bool ready() const { return ready_; }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int release_[2] = {-1, -1};
  bool ready_ = false;
};

TEST_F(PidSeedingTest, SeedsEveryProcessOfProcWithOneUpdateTime) {
  NamedChild child("abcdefghijklmno", 617);
  ASSERT_TRUE(child.ready());
  const auto [before, after] = startAndSeed();

  const auto seededNames = names();
  const auto seededAdjs = adjs();
  const auto seededTimes = updateTimes();
  for (const pid_t pid : {getpid(), child.pid()}) {
    SCOPED_TRACE("pid " + std::to_string(pid));
    ASSERT_TRUE(seededNames.count(pid) && seededAdjs.count(pid) && seededTimes.count(pid));
  }
  EXPECT_EQ(seededNames.at(child.pid()), storedName("abcdefghijklmn"));
  EXPECT_EQ(seededAdjs.at(child.pid()), 617);
  EXPECT_EQ(seededNames.at(getpid()), storedName(readLine("/proc/self/comm")));
  EXPECT_EQ(seededAdjs.at(getpid()), std::stoi(readLine("/proc/self/oom_score_adj")));

  const uint64_t shared = seededTimes.begin()->second;
  EXPECT_GE(shared, before);
  EXPECT_LE(shared, after);
  for (const auto& [pid, time] : seededTimes) EXPECT_EQ(time, shared) << "pid " << pid;
  EXPECT_EQ(seededNames.size(), seededTimes.size()) << "every pid has all three entries or none";
  EXPECT_EQ(seededAdjs.size(), seededTimes.size());
}

TEST_F(PidSeedingTest, ExistingEntryIsWarnedAboutAndRemovedFromAllThreeMaps) {
  const int32_t self = getpid();
  const process_info_t oldName = zelk::testbed::processInfo("old");
  const int16_t oldAdj = 5;
  zelk::testbed::update(maps_.fd(MapId::PidComm), &self, &oldName);
  zelk::testbed::update(maps_.fd(MapId::PidAdj), &self, &oldAdj);
  startAndSeed();

  const auto warnings = log_.matching("to gProCommFd");
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_EQ(warnings[0].priority, ANDROID_LOG_WARN);
  EXPECT_EQ(zelk::testbed::withoutLine(warnings[0].text),
            "[doInitMap:N] Failed to write " + std::to_string(self) +
                " to gProCommFd, gPidAdjUpdateFd and gProAdjFd, reason: File exists.");
  EXPECT_EQ(names().count(self), 0u);
  EXPECT_EQ(adjs().count(self), 0u) << "the entry that predates the pass goes too";
  EXPECT_EQ(updateTimes().count(self), 0u);
  EXPECT_EQ(names().count(getppid()), 1u) << "the pass goes on after the failure";
}

// A /proc of the test's own, for entries that the real one cannot be made to hold.
class FakeProcTest : public PidSeedingTest {
 protected:
  void SetUp() override {
    PidSeedingTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(initGlobals());  // reads sysfs only, before /proc is replaced
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
    mounted_ = true;
  }
  // The real /proc comes back for whatever runs at exit (a leak checker reads it).
  void TearDown() override {
    if (mounted_) umount2("/proc", MNT_DETACH);
  }

  static void addProcess(const std::string& name, const char* comm, const char* adj) {
    addDir(name);
    if (comm) {
      ASSERT_TRUE(android::base::WriteStringToFile(comm, "/proc/" + name + "/comm"));
    }
    if (adj) {
      ASSERT_TRUE(android::base::WriteStringToFile(adj, "/proc/" + name + "/oom_score_adj"));
    }
  }
  static void addDir(const std::string& name) {
    ASSERT_EQ(mkdir(("/proc/" + name).c_str(), 0755), 0) << name << ": " << strerror(errno);
  }

 private:
  bool mounted_ = false;
};

TEST_F(FakeProcTest, WritesWhatEachEntryHoldsAndReportsWhatItCannotRead) {
  addProcess("100", "fifteen_chars_x\n", "-1000\n");
  addProcess("101", "nonl", "0");       // no newline at the end of either file
  addProcess("102", "", "7\n");         // an empty name is written as 16 zero bytes
  addProcess("105", "c\n", "40000\n");  // kept to 16 bits
  addProcess("007", "zeros\n", "3\n");  // paths come from the name, the key from stoi
  addProcess("103", "a\n", "");         // no adj: nothing written
  addProcess("104", "b\n", "x\n");      // not a number: nothing written
  addProcess("106", "d\n", nullptr);    // adj file missing
  addDir("-12");                        // a number, but no files
  addProcess("-", "dash\n", "1\n");     // not numbers: never parsed
  addProcess("1a", "letters\n", "1\n");
  addProcess("99999999999", "huge\n", "1\n");  // beyond int
  addProcess("107", "e\n", "99999999999\n");
  ASSERT_EQ(symlink("100", "/proc/self"), 0);
  gTrackingStarted.store(true);

  const uint64_t before = getTimeSinceBoot();
  doInitMap();
  const uint64_t after = getTimeSinceBoot();

  EXPECT_EQ(names(), (std::map<int32_t, std::string>{{100, storedName("fifteen_chars_x")},
                                                     {101, storedName("nonl")},
                                                     {102, std::string(16, '\0')},
                                                     {105, storedName("c")},
                                                     {7, storedName("zeros")}}));
  EXPECT_EQ(adjs(),
            (std::map<int32_t, int16_t>{{100, -1000}, {101, 0}, {102, 7}, {105, -25536}, {7, 3}}));
  const auto times = updateTimes();
  ASSERT_EQ(times.size(), 5u);
  for (const auto& [pid, time] : times) {
    EXPECT_EQ(time, times.begin()->second) << "pid " << pid;
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
  }

  std::multiset<std::string> lines;
  for (const auto& line : log_.lines()) {
    EXPECT_EQ(line.priority, ANDROID_LOG_ERROR) << line.text;
    lines.insert(zelk::testbed::withoutLine(line.text));
  }
  EXPECT_EQ(lines, (std::multiset<std::string>{
                       "[doInitMap:N] Failed to open /proc/-12/comm.",
                       "[doInitMap:N] Failed to open /proc/106/oom_score_adj.",
                       "[doInitMap:N] out of range.", "[doInitMap:N] out of range."}));
}

TEST_F(FakeProcTest, RefusedThirdWriteRemovesTheFirstTwo) {
  addProcess("200", "victim\n", "12\n");
  ASSERT_EQ(maps_.freeze(MapId::PidAdj), "");  // user-space writes now fail with EPERM
  gTrackingStarted.store(true);

  doInitMap();

  const auto lines = log_.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[doInitMap:N] Failed to write 200 to gProCommFd, gPidAdjUpdateFd and gProAdjFd, "
            "reason: Operation not permitted.");
  EXPECT_TRUE(names().empty());
  EXPECT_TRUE(updateTimes().empty());
}

TEST_F(FakeProcTest, NoPassBeforeTrackingHasStarted) {
  addProcess("300", "early\n", "0\n");
  doInitMap();
  EXPECT_TRUE(names().empty());
  EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
}  // namespace com::zelkora
