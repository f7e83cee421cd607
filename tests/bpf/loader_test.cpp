// The loader against the real kernel: what it pins, and how it treats pins that exist.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/clock.h"
#include "maps.h"
#include "namespace.h"
#include "object_loader.h"
#include "programs.h"

namespace zelk::testbed {
namespace {

using com::zelkora::getTimeSinceBoot;
using loader::Status;

// The kernel ids of the object's pins (map and program info both start with type, id), to tell
// whether a load replaced them.
std::map<std::string, uint32_t> pinIds() {
  std::vector<std::string> paths;
  for (MapId id : kAllMaps) paths.push_back(pinPath(id));
  for (const auto& tp : objectTracepoints()) paths.push_back(programPinPath(tp));
  for (const auto& program : com::zelkora::kRunPrograms) paths.push_back(program.pinPath);
  std::map<std::string, uint32_t> ids;
  for (const std::string& path : paths) {
    android::base::unique_fd fd(bpf_obj_get(path.c_str()));
    bpf_prog_info info{};
    uint32_t length = sizeof(info);
    if (fd.get() >= 0 && bpf_obj_get_info_by_fd(fd.get(), &info, &length) == 0) {
      ids[path] = info.id;
    }
  }
  return ids;
}

uint64_t clearTime() {
  android::base::unique_fd fd(bpf_obj_get(pinPath(MapId::ClearTime).c_str()));
  const uint32_t zero = 0;
  uint64_t time = 0;
  bpf_map_lookup_elem(fd.get(), &zero, &time);
  return time;
}

class LoaderTest : public KernelTest {};

// The object has exactly the catalogue's maps and programs (in the ELF's order, which is not the
// catalogue's); so every table
// taken from the catalogue (the library's, the loader's sizes, the tool's, the test bed's) is the
// object's. Read from the ELF: no kernel needed.
TEST(ObjectPinsTest, TheObjectHasTheCataloguesMapsAndPrograms) {
  const loader::PinList pins = loader::objectPins(loader::embeddedObject());
  ASSERT_EQ(pins.error, "");
  std::set<std::string> maps;
  for (MapId id : kAllMaps) maps.insert(pinPath(id));
  EXPECT_EQ(std::set<std::string>(pins.maps.begin(), pins.maps.end()), maps);
  EXPECT_EQ(pins.maps.size(), maps.size());
  std::set<std::string> programs, catalogued;
  for (const loader::ProgramPin& program : pins.programs) {
    programs.insert(program.path);
    if (!program.category.empty()) {
      EXPECT_EQ(program.path, programPinPath({program.category, program.event}));
    }
  }
  for (const auto& tp : objectTracepoints()) catalogued.insert(programPinPath(tp));
  for (const auto& program : com::zelkora::kRunPrograms) catalogued.insert(program.pinPath);
  EXPECT_EQ(programs, catalogued);
  EXPECT_EQ(pins.programs.size(), catalogued.size());
  EXPECT_EQ(pinPath(MapId::ClearTime), "/sys/fs/bpf/map_zelkCputimeInState_clear_time_map");
  EXPECT_EQ(programPinPath({"sched", "sched_switch"}),
            "/sys/fs/bpf/prog_zelkCputimeInState_tracepoint_sched_sched_switch");
  EXPECT_STREQ(com::zelkora::kRunPrograms[0].pinPath,
               "/sys/fs/bpf/prog_zelkCputimeInState_raw_tp_settle_cpu");
}

TEST_F(LoaderTest, LoadsIntoItsOwnBpffsKeepsOrReplacesPinsAndUnloadsExactlyItsOwn) {
  ASSERT_EQ(umount("/sys/fs/bpf"), 0);
  const uint64_t before = getTimeSinceBoot();
  ASSERT_EQ(loader::load().status, Status::kLoaded);
  struct statfs fs;
  ASSERT_EQ(statfs("/sys/fs/bpf", &fs), 0);
  EXPECT_EQ(fs.f_type, BPF_FS_MAGIC);
  EXPECT_GE(clearTime(), before);
  EXPECT_LE(clearTime(), getTimeSinceBoot());
  // The kernel copies as many bytes as the map's own sizes say, to and from the library's records;
  // the library walks and deletes in hashes, and reads per-CPU blocks where the catalogue says.
  // The test bed makes its maps from the same catalogue, with the compiled sizes of the fixed ones.
  for (MapId id : kAllMaps) {
    SCOPED_TRACE(catalogue(id).name);
    android::base::unique_fd fd(bpf_obj_get(pinPath(id).c_str()));
    bpf_map_info info{};
    uint32_t length = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd.get(), &info, &length), 0) << strerror(errno);
    EXPECT_EQ(info.type, catalogue(id).type);
    EXPECT_EQ(info.key_size, catalogue(id).keySize);
    EXPECT_EQ(info.value_size, catalogue(id).valueSize);
    if (com::zelkora::mapInfo(id).size == ZELK_SIZE_FIXED) {
      EXPECT_EQ(info.max_entries, catalogue(id).maxEntries);
    }
  }
  const auto first = pinIds();
  const size_t objectPinCount =
      std::size(kAllMaps) + objectTracepoints().size() + std::size(com::zelkora::kRunPrograms);
  ASSERT_EQ(first.size(), objectPinCount)
      << "every map, the six programs which tests/e2e attach, and the settle program";
  const uint64_t firstClear = clearTime();

  // Existing pins are kept unless replaced.

  const loader::Outcome again = loader::load();
  EXPECT_EQ(again.status, Status::kAlreadyLoaded) << again.message;
  EXPECT_EQ(pinIds(), first);
  EXPECT_EQ(clearTime(), firstClear);

  ASSERT_EQ(unlink(pinPath(MapId::PidComm).c_str()), 0);
  const loader::Outcome partial = loader::load();
  EXPECT_EQ(partial.status, Status::kFailed);
  const loader::PinList all = loader::objectPins(loader::embeddedObject());
  const size_t pins = all.maps.size() + all.programs.size();
  EXPECT_NE(partial.message.find(std::to_string(pins - 1) + " of " + std::to_string(pins)),
            std::string::npos)
      << partial.message;
  EXPECT_EQ(pinIds().size(), objectPinCount - 1);

  loader::LoadOptions replace;
  replace.replace = true;
  ASSERT_EQ(loader::load(replace).status, Status::kLoaded);
  const auto replaced = pinIds();
  ASSERT_EQ(replaced.size(), objectPinCount);
  for (const auto& [path, id] : first) EXPECT_NE(replaced.at(path), id) << path;
  EXPECT_GT(clearTime(), firstClear);

  // Unloading removes exactly its pins, not its neighbours, one even named like a pin of it.
  android::base::unique_fd neighbour(
      bpf_map_create(BPF_MAP_TYPE_ARRAY, "neighbour", 4, 4, 1, nullptr));
  const char* lookalike = "/sys/fs/bpf/map_zelkCputimeInState_neighbour";
  ASSERT_EQ(bpf_obj_pin(neighbour.get(), lookalike), 0);
  ASSERT_EQ(mkdir("/sys/fs/bpf/neighbour", 0700), 0);

  EXPECT_EQ(loader::unload().status, Status::kUnloaded);
  EXPECT_TRUE(pinIds().empty());
  EXPECT_EQ(access(lookalike, F_OK), 0);
  EXPECT_EQ(access("/sys/fs/bpf/neighbour", F_OK), 0);
  EXPECT_EQ(loader::unload().status, Status::kNotLoaded);
}

}  // namespace
}  // namespace zelk::testbed
