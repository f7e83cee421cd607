// The seeding pass of the background thread, on a /proc of the test's own (a tmpfs over /proc in
// its private namespace) that holds what a real /proc cannot be made to. That a start runs it on
// the real /proc is checked with the start, in tracking_start_test.
#include "kernel/pid_seeding.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>

#include "core/clock.h"
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

TEST_F(PidSeedingTest, WritesWhatEachEntryHoldsOnceAndReportsWhatItCannotRead) {
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
  addProcess("101", "nonl", "0");              // no newline at the end of either file
  addProcess("102", "", "7\n");                // an empty name is written as 16 zero bytes
  addProcess("105", "c\n", "40000\n");         // kept to 16 bits
  addProcess("007", "zeros\n", "3\n");         // paths come from the name, the key from stoi
  addProcess("104", "b\n", "x\n");             // not a number: nothing written
  addProcess("106", "d\n", nullptr);           // adj file missing
  addProcess("-12", nullptr, nullptr);         // a number, but no files
  addProcess("-", "dash\n", "1\n");            // not numbers: never parsed
  addProcess("99999999999", "huge\n", "1\n");  // beyond int
  addProcess("107", "e\n", "99999999999\n");
  addProcess("108", "old\n", "1\n");  // has an entry already, in the map written last
  ASSERT_EQ(symlink("100", "/proc/self"), 0);
  const int32_t existing = 108;
  const int16_t oldAdj = 5;
  update(fd(MapId::PidAdj), &existing, &oldAdj);
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
  // One update time for the pass; a pid whose write failed is gone from all three maps.
  const auto seeded = times();
  EXPECT_EQ(seeded.size(), 5u);
  for (const auto& [pid, time] : seeded) {
    EXPECT_GE(time, before) << pid;
    EXPECT_LE(time, after) << pid;
    EXPECT_EQ(time, seeded.begin()->second) << pid;
  }
  std::multiset<std::string> lines;
  for (const auto& line : log_.lines()) {
    EXPECT_EQ(line.priority, line.text.find("File exists") == std::string::npos ? ANDROID_LOG_ERROR
                                                                                : ANDROID_LOG_WARN);
    lines.insert(withoutLine(line.text));
  }
  EXPECT_EQ(lines, (std::multiset<std::string>{
                       "[doInitMap:N] Failed to open /proc/-12/comm.",
                       "[doInitMap:N] Failed to open /proc/106/oom_score_adj.",
                       "[doInitMap:N] out of range.", "[doInitMap:N] out of range.",
                       "[doInitMap:N] Failed to write 108 to gProCommFd, gPidAdjUpdateFd and "
                       "gProAdjFd, reason: File exists."}));
}

}  // namespace
}  // namespace com::zelkora
