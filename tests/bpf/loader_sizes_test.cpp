// The map sizes of a load against the real kernel: given or the machine's, they reach the maps;
// a size the command line or the kernel refuses loads nothing; the memory line adds up.
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>

#include "child_process.h"
#include "kernel_memory.h"
#include "namespace.h"
#include "object_loader.h"

namespace zelk::testbed {
namespace {

using loader::Status;

struct PinnedMap {
  uint32_t maxEntries = 0;
  uint64_t memlock = 0;
};

PinnedMap pinned(const std::string& name) {
  android::base::unique_fd fd(bpf_obj_get(loader::mapPinPath(name).c_str()));
  bpf_map_info info{};
  uint32_t length = sizeof(info);
  if (fd.get() < 0 || bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) return {};
  return {info.max_entries, loader::memlockBytes(fd.get())};
}

void expectEntries(const loader::MapSizes& sizes) {
  for (const loader::SizedMap& map : loader::kSizedMaps) {
    EXPECT_EQ(pinned(map.name).maxEntries, sizes.*map.entries) << map.name;
  }
  EXPECT_EQ(pinned("cpu_policy_map").maxEntries, 1024u);  // not sized at load
  EXPECT_EQ(pinned("total_cpu_time_in_state_map").maxEntries, 1u);
}

std::set<std::string> bpffsEntries() {
  std::set<std::string> names;
  DIR* dir = opendir("/sys/fs/bpf");
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) names.insert(entry->d_name);
  closedir(dir);
  return names;
}

size_t lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

class LoaderSizesTest : public KernelTest {};

TEST_F(LoaderSizesTest, SizesReachTheMapsAndTheMemoryIsCounted) {
  // The machine's defaults.
  const loader::Outcome loaded = loader::load();
  ASSERT_EQ(loaded.status, Status::kLoaded) << loaded.message;
  uint64_t pidMax = 0;
  std::ifstream("/proc/sys/kernel/pid_max") >> pidMax;
  const loader::MapSizes defaults = loader::defaultMapSizes(libbpf_num_possible_cpus(), pidMax);
  expectEntries(defaults);
  const PinnedMap big = pinned("process_time_in_state_map");

  // Given sizes, through the command line, which says them and the memory in its one line.
  const ChildResult run =
      runProgram(ZELK_LOADER_PATH, {"load", "--replace", "--names", "64", "--kthreads", "32",
                                    "--pids", "128", "--cgroups", "48"});
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(lines(run.output), 1u) << run.output;
  EXPECT_TRUE(std::regex_search(
      run.output, std::regex(R"(^loaded zelkCputimeInState \(names 64, kthreads 32, )"
                             R"(pids 128, cgroups 48\): .*; kernel memory [0-9.]+ [KM]iB \(maps )"
                             R"([0-9.]+ [KM]iB, most in freq_to_idx_map )")))
      << run.output;
  expectEntries({64, 32, 128, 48});

  // A per-CPU map costs 256 bytes per entry and CPU, plus some overhead per entry.
  const PinnedMap small = pinned("process_time_in_state_map");
  const uint64_t perEntry = (big.memlock - small.memlock) / (defaults.names - 64);
  const uint64_t block = loader::kTimeInStateBytes * libbpf_num_possible_cpus();
  EXPECT_GE(perEntry, block) << big.memlock << " " << small.memlock;
  EXPECT_LE(perEntry, block + 128) << big.memlock << " " << small.memlock;

  // The total counts every map and program of the load.
  const loader::Outcome replaced = loader::load({.replace = true, .sizes = {100, 50, 200}});
  ASSERT_EQ(replaced.status, Status::kLoaded) << replaced.message;
  const loader::PinList pins = loader::objectPins(loader::embeddedObject());
  std::vector<std::string> paths = pins.maps;
  for (const loader::ProgramPin& program : pins.programs) paths.push_back(program.path);
  uint64_t total = 0;
  for (const std::string& path : paths) {
    android::base::unique_fd fd(bpf_obj_get(path.c_str()));
    const uint64_t bytes = loader::memlockBytes(fd.get());
    EXPECT_GT(bytes, 0u) << path;
    total += bytes;
  }
  EXPECT_EQ(replaced.kernelBytes, total);
}

TEST_F(LoaderSizesTest, RefusedSizesSayWhichOptionAndLoadNothing) {
  const std::set<std::string> before = bpffsEntries();
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const std::string usage = " takes a number of entries from 1 to 4294967295\n";
  const Case cases[] = {
      {{"--names", "0"}, 2, "--names" + usage},
      {{"--kthreads", "abc"}, 2, "--kthreads" + usage},
      {{"--pids", "12x"}, 2, "--pids" + usage},
      {{"--cgroups", "-1"}, 2, "--cgroups" + usage},
      {{"--names", "4294967296"}, 2, "--names" + usage},
      {{"--replace", "--pids"}, 2, "--pids" + usage},
      // Within what max_entries holds, above what the kernel's hash maps take.
      {{"--names", "4294967295"},
       1,
       "the kernel refused process_time_in_state_map with 4294967295 entries (--names): "
       "Argument list too long\n"},
      {{"--kthreads", "4294967295"}, 1, "the kernel refused kthread_time_in_state_map"},
      {{"--names", "64", "--pids", "268435456"}, 1, "entries (--pids): Argument list too long\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"load"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(testing::PrintToString(args));
    const ChildResult run = runProgram(ZELK_LOADER_PATH, args);
    EXPECT_EQ(run.status, c.status) << run.output;
    EXPECT_EQ(lines(run.output), 1u) << run.output;
    EXPECT_EQ(run.output.rfind("zelk-loader: ", 0), 0u) << run.output;
    EXPECT_NE(run.output.find(c.message), std::string::npos) << run.output;
    EXPECT_EQ(bpffsEntries(), before);
  }

  // Over a load, a refused size keeps the pins that were there.
  ASSERT_EQ(loader::load({.sizes = {64, 32, 128, 48}}).status, Status::kLoaded);
  const std::set<std::string> loaded = bpffsEntries();
  const loader::Outcome refused =
      loader::load({.replace = true, .sizes = {64, 4294967295u, 128, 48}});
  EXPECT_EQ(refused.status, Status::kFailed);
  EXPECT_EQ(bpffsEntries(), loaded);
  expectEntries({64, 32, 128, 48});
}

}  // namespace
}  // namespace zelk::testbed
