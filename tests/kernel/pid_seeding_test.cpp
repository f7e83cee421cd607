// The seeding pass of the background thread: on the real /proc through the tracking start, and
// on a /proc of the test's own (a tmpfs over /proc in its private namespace) for the entries that
// a real /proc cannot be made to hold.
#include "kernel/pid_seeding.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>

#include "accounting/clock.h"
#include "core/map_records.h"
#include "core/state.h"
#include "library_test.h"

namespace com::zelkora {
namespace {

using namespace std::chrono_literals;
using namespace zelk::testbed;

// The name as the pass stores it: at most 14 characters, zero bytes up to 16.
std::string storedName(const std::string& name) {
  std::string stored = name.substr(0, 14);
  stored.resize(16, '\0');
  return stored;
}

class PidSeedingTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    addPolicy("policy0", {300000, 600000}, {0});
    ASSERT_EQ(pinPrograms(), "");
  }
  std::map<int32_t, std::string> names() const {
    std::map<int32_t, std::string> found;
    for (const auto& [pid, info] : entries<int32_t, process_info_t>(fd(MapId::PidComm))) {
      found[pid] = std::string(info.comm, sizeof(info.comm));
    }
    return found;
  }
  std::map<int32_t, int16_t> adjs() const { return entries<int32_t, int16_t>(fd(MapId::PidAdj)); }
  std::map<int32_t, uint64_t> times() const {
    return entries<int32_t, uint64_t>(fd(MapId::PidAdjUpdate));
  }
  int fd(MapId id) const { return maps_.fd(id); }
};

TEST_F(PidSeedingTest, SeedsEveryProcessOnceAndDropsAPidWhoseEntryExists) {
  // A child with a 15-character name and a known oom_score_adj, alive until the test ends.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_NAME, "abcdefghijklmno");
    android::base::WriteStringToFile("617", "/proc/self/oom_score_adj");
    while (true) pause();
  }
  struct Reaper {
    pid_t pid;
    ~Reaper() {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  } reaper{child};
  const std::string adjPath = "/proc/" + std::to_string(child) + "/oom_score_adj";
  ASSERT_TRUE(waitUntil(
      [&] {
        std::string adj;
        return android::base::ReadFileToString(adjPath, &adj) && adj == "617\n";
      },
      5s));
  // This process has an entry already, in the map that the pass writes last.
  const int32_t self = getpid();
  const int16_t oldAdj = 5;
  update(fd(MapId::PidAdj), &self, &oldAdj);
  const uint64_t before = getTimeSinceBoot();
  ASSERT_TRUE(startTrackingCpuFreqTime());
  // The monitor's first line follows the pass.
  ASSERT_TRUE(waitUntil([&] { return log_.count("Trigger:") > 0; }, 10s));
  const uint64_t after = getTimeSinceBoot();

  const auto seededNames = names();
  const auto seededAdjs = adjs();
  const auto seededTimes = times();
  ASSERT_TRUE(seededNames.count(child) && seededAdjs.count(child) && seededTimes.count(child));
  EXPECT_EQ(seededNames.at(child), storedName("abcdefghijklmn"));
  EXPECT_EQ(seededAdjs.at(child), 617);
  const uint64_t shared = seededTimes.at(child);
  EXPECT_GE(shared, before);
  EXPECT_LE(shared, after);
  for (const auto& [pid, time] : seededTimes) EXPECT_EQ(time, shared) << "pid " << pid;
  EXPECT_EQ(seededNames.size(), seededTimes.size()) << "every pid has all three entries or none";
  EXPECT_EQ(seededAdjs.size(), seededTimes.size());

  EXPECT_EQ(seededNames.count(self) + seededTimes.count(self) + seededAdjs.count(self), 0u)
      << "the pid whose write failed is gone from all three maps, the older entry too";
  ASSERT_EQ(log_.count("to gProCommFd"), 1u);
  for (const auto& line : log_.lines()) {
    if (line.priority != ANDROID_LOG_WARN) continue;
    EXPECT_EQ(withoutLine(line.text),
              "[doInitMap:N] Failed to write " + std::to_string(self) +
                  " to gProCommFd, gPidAdjUpdateFd and gProAdjFd, reason: File exists.");
  }
}

TEST_F(PidSeedingTest, OnAProcOfItsOwnWritesWhatEachEntryHoldsAndReportsWhatItCannotRead) {
  ASSERT_TRUE(initGlobals());  // reads sysfs only, before /proc is replaced
  ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
  struct Unmount {  // the real /proc comes back for whatever runs at exit (a leak checker)
    ~Unmount() { umount2("/proc", MNT_DETACH); }
  } unmount;
  const auto addProcess = [](const std::string& name, const char* comm, const char* adj) {
    const std::string dir = "/proc/" + name;
    EXPECT_EQ(mkdir(dir.c_str(), 0755), 0) << name;
    EXPECT_TRUE(!comm || android::base::WriteStringToFile(comm, dir + "/comm"));
    EXPECT_TRUE(!adj || android::base::WriteStringToFile(adj, dir + "/oom_score_adj"));
  };
  addProcess("100", "fifteen_chars_x\n", "-1000\n");
  addProcess("101", "nonl", "0");       // no newline at the end of either file
  addProcess("102", "", "7\n");         // an empty name is written as 16 zero bytes
  addProcess("105", "c\n", "40000\n");  // kept to 16 bits
  addProcess("007", "zeros\n", "3\n");  // paths come from the name, the key from stoi
  addProcess("103", "a\n", "");         // no adj: nothing written
  addProcess("104", "b\n", "x\n");      // not a number: nothing written
  addProcess("106", "d\n", nullptr);    // adj file missing
  addProcess("-12", nullptr, nullptr);  // a number, but no files
  addProcess("-", "dash\n", "1\n");     // not numbers: never parsed
  addProcess("1a", "letters\n", "1\n");
  addProcess("99999999999", "huge\n", "1\n");  // beyond int
  addProcess("107", "e\n", "99999999999\n");
  ASSERT_EQ(symlink("100", "/proc/self"), 0);
  gTrackingStarted.store(true);

  doInitMap();

  EXPECT_EQ(names(), (std::map<int32_t, std::string>{{100, storedName("fifteen_chars_x")},
                                                     {101, storedName("nonl")},
                                                     {102, std::string(16, '\0')},
                                                     {105, storedName("c")},
                                                     {7, storedName("zeros")}}));
  EXPECT_EQ(adjs(),
            (std::map<int32_t, int16_t>{{100, -1000}, {101, 0}, {102, 7}, {105, -25536}, {7, 3}}));
  EXPECT_EQ(times().size(), 5u);
  std::multiset<std::string> lines;
  for (const auto& line : log_.lines()) {
    EXPECT_EQ(line.priority, ANDROID_LOG_ERROR) << line.text;
    lines.insert(withoutLine(line.text));
  }
  EXPECT_EQ(lines, (std::multiset<std::string>{
                       "[doInitMap:N] Failed to open /proc/-12/comm.",
                       "[doInitMap:N] Failed to open /proc/106/oom_score_adj.",
                       "[doInitMap:N] out of range.", "[doInitMap:N] out of range."}));
}

}  // namespace
}  // namespace com::zelkora
