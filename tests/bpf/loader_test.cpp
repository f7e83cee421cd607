// The loader against the real kernel: what it pins, and how it treats pins that exist.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "object_bed.h"
#include "object_loader.h"

namespace zelk::testbed {
namespace {

using loader::Status;

// The tracepoints whose programs the library attaches, by category and event.
const std::pair<const char*, const char*> kTracepoints[] = {
    {"sched", "sched_switch"},       {"power", "cpu_frequency"}, {"sched", "sched_process_free"},
    {"sched", "sched_process_fork"}, {"task", "task_rename"},    {"oom", "oom_score_adj_update"},
};

std::string programPath(const char* category, const char* event) {
  return std::string("/sys/fs/bpf/prog_zelkCputimeInState_tracepoint_") + category + "_" + event;
}

bool perCpu(uint32_t type) {
  return type == BPF_MAP_TYPE_PERCPU_HASH || type == BPF_MAP_TYPE_PERCPU_ARRAY;
}

// Kernel ids of every pin, to tell whether a load replaced them.
std::map<std::string, uint32_t> pinIds() {
  std::map<std::string, uint32_t> ids;
  std::vector<std::string> paths;
  for (MapId id : kAllMaps) paths.push_back(pinPath(id));
  for (const auto& [category, event] : kTracepoints) paths.push_back(programPath(category, event));
  for (const std::string& path : paths) {
    android::base::unique_fd fd(bpf_obj_get(path.c_str()));
    if (fd.get() < 0) continue;
    bpf_prog_info info{};  // the id is the second field of both info records
    uint32_t length = sizeof(info);
    if (bpf_obj_get_info_by_fd(fd.get(), &info, &length) == 0) ids[path] = info.id;
  }
  return ids;
}

uint64_t clearTime() {
  android::base::unique_fd fd(bpf_obj_get(pinPath(MapId::ClearTime).c_str()));
  const uint32_t zero = 0;
  return lookupU64(fd.get(), &zero).value_or(0);
}

class LoaderTest : public KernelTest {};

TEST_F(LoaderTest, PinsEveryMapWithTheLibrarysRecords) {
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  // The maps the library deletes from must support deletion and key walks.
  const std::set<MapId> deleted = {MapId::ProcessTime, MapId::KthreadTime, MapId::TotalTime,
                                   MapId::TopTime,     MapId::BgTime,      MapId::PidAdjUpdate,
                                   MapId::PidAdj,      MapId::PidComm};
  const std::set<MapId> perCpuMaps = {MapId::ProcessTime, MapId::KthreadTime, MapId::TotalTime,
                                      MapId::CpuLastUpdate};
  for (MapId id : kAllMaps) {
    SCOPED_TRACE(catalogue(id).name);
    android::base::unique_fd fd(bpf_obj_get(pinPath(id).c_str()));
    ASSERT_GE(fd.get(), 0) << strerror(errno);
    bpf_map_info info{};
    uint32_t length = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &length), 0);
    EXPECT_EQ(info.key_size, catalogue(id).keySize);
    EXPECT_EQ(info.value_size, catalogue(id).valueSize);
    EXPECT_EQ(perCpu(info.type), perCpuMaps.count(id) == 1);
    if (deleted.count(id)) {
      EXPECT_TRUE(info.type == BPF_MAP_TYPE_HASH || info.type == BPF_MAP_TYPE_PERCPU_HASH);
    }
  }
  // The time-in-state maps are per-CPU hashes.
  for (MapId id : {MapId::ProcessTime, MapId::KthreadTime, MapId::TotalTime}) {
    android::base::unique_fd fd(bpf_obj_get(pinPath(id).c_str()));
    bpf_map_info info{};
    uint32_t length = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &length), 0);
    EXPECT_EQ(info.type, BPF_MAP_TYPE_PERCPU_HASH) << catalogue(id).name;
  }
}

TEST_F(LoaderTest, PinsSixTracepointProgramsAndNothingElse) {
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  for (const auto& [category, event] : kTracepoints) {
    android::base::unique_fd fd(bpf_obj_get(programPath(category, event).c_str()));
    ASSERT_GE(fd.get(), 0) << event << ": " << strerror(errno);
    bpf_prog_info info{};
    uint32_t length = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &length), 0);
    EXPECT_EQ(info.type, BPF_PROG_TYPE_TRACEPOINT) << event;
  }
  EXPECT_EQ(pinIds().size(), 19u);
  size_t ours = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/fs/bpf")) {
    ours += entry.path().filename().string().find("zelkCputimeInState") != std::string::npos;
  }
  EXPECT_EQ(ours, 19u);
}

TEST_F(LoaderTest, WritesTheLoadTimeAsClearTime) {
  const uint64_t before = monotonicNs();
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  const uint64_t after = monotonicNs();
  EXPECT_GE(clearTime(), before);
  EXPECT_LE(clearTime(), after);
}

TEST_F(LoaderTest, LoadingAgainKeepsThePinsUnlessReplacing) {
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  const auto first = pinIds();
  const uint64_t firstClear = clearTime();

  const loader::Outcome again = loader::load();
  EXPECT_EQ(again.status, Status::kAlreadyLoaded);
  EXPECT_NE(again.message.find("already loaded"), std::string::npos) << again.message;
  EXPECT_EQ(pinIds(), first);
  EXPECT_EQ(clearTime(), firstClear);

  loader::LoadOptions replace;
  replace.replace = true;
  ASSERT_EQ(loader::load(replace).status, Status::kLoaded);
  const auto replaced = pinIds();
  ASSERT_EQ(replaced.size(), first.size());
  for (const auto& [path, id] : replaced) EXPECT_NE(id, first.at(path)) << path;
  EXPECT_GT(clearTime(), firstClear);
}

TEST_F(LoaderTest, PartialPinsAreReportedAndOnlyReplaced) {
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  ASSERT_EQ(unlink(pinPath(MapId::PidComm).c_str()), 0);
  const loader::Outcome partial = loader::load();
  EXPECT_EQ(partial.status, Status::kFailed);
  EXPECT_NE(partial.message.find("18 of 19"), std::string::npos) << partial.message;
  EXPECT_EQ(pinIds().size(), 18u);

  loader::LoadOptions replace;
  replace.replace = true;
  EXPECT_EQ(loader::load(replace).status, Status::kLoaded);
  EXPECT_EQ(pinIds().size(), 19u);
}

TEST_F(LoaderTest, UnloadRemovesExactlyItsPins) {
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  // Neighbours in the same bpffs, one even named like a pin of the object.
  android::base::unique_fd neighbour(
      bpf_map_create(BPF_MAP_TYPE_ARRAY, "neighbour", 4, 4, 1, nullptr));
  const char* lookalike = "/sys/fs/bpf/map_zelkCputimeInState_neighbour";
  ASSERT_EQ(bpf_obj_pin(neighbour.get(), lookalike), 0);
  ASSERT_EQ(mkdir("/sys/fs/bpf/neighbour", 0700), 0);

  const loader::Outcome unloaded = loader::unload();
  EXPECT_EQ(unloaded.status, Status::kUnloaded) << unloaded.message;
  EXPECT_NE(unloaded.message.find("removed 19 pins"), std::string::npos) << unloaded.message;
  EXPECT_TRUE(pinIds().empty());
  EXPECT_EQ(access(lookalike, F_OK), 0);
  EXPECT_EQ(access("/sys/fs/bpf/neighbour", F_OK), 0);
  EXPECT_EQ(loader::unload().status, Status::kNotLoaded);
}

TEST_F(LoaderTest, MountsBpffsWhenMissing) {
  ASSERT_EQ(umount("/sys/fs/bpf"), 0);
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  struct statfs fs;
  ASSERT_EQ(statfs("/sys/fs/bpf", &fs), 0);
  EXPECT_EQ(fs.f_type, BPF_FS_MAGIC);
  EXPECT_EQ(pinIds().size(), 19u);
}

}  // namespace
}  // namespace zelk::testbed
