#include "map_fill.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>

#include <vector>

#include "object_pins.h"
#include "task_rows.h"
#include "units.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

enum class Overflow { kProcess, kKthread, kTop, kBg, kNone };

struct CountedMap {
  const char* name;
  Overflow overflow;
  const char* sizeOption;  // of `zelkcputime load`
};

constexpr CountedMap kMaps[] = {
    {"process_time_in_state_map", Overflow::kProcess, "--names"},
    {"kthread_time_in_state_map", Overflow::kKthread, "--kthreads"},
    {"comm_to_toptime_map", Overflow::kTop, "--names"},
    {"comm_to_bgtime_map", Overflow::kBg, "--names"},
    {"pid_to_comm_map", Overflow::kNone, "--pids"},
    {"pid_to_adj_map", Overflow::kNone, "--pids"},
    {"pid_to_adj_last_update_map", Overflow::kNone, "--pids"},
};

// Keys counted one step at a time: hash maps keep no count that user space can read.
std::optional<MapFill> measure(const char* name) {
  const android::base::unique_fd fd(bpf_obj_get(loader::mapPinPath(name).c_str()));
  if (fd.get() < 0) return std::nullopt;
  bpf_map_info info = {};
  __u32 length = sizeof(info);
  if (bpf_obj_get_info_by_fd(fd.get(), &info, &length) != 0) return std::nullopt;
  std::vector<unsigned char> key(info.key_size);
  MapFill fill{name, 0, info.max_entries, std::nullopt};
  for (const void* previous = nullptr;
       fill.entries < info.max_entries && bpf_map_get_next_key(fd.get(), previous, key.data()) == 0;
       previous = key.data()) {
    ++fill.entries;
  }
  return fill;
}

uint64_t timeOf(const std::optional<Times>& times) { return times ? sumTimes(*times) : 0; }

uint64_t overflowOf(const std::optional<lib::TimeTable>& table) {
  if (!table) return 0;
  const auto it = table->find({lib::kOverflowTaskName, 0});
  return it == table->end() ? 0 : it->second;
}

// Through the library, so that the numbers are the ones `show` prints.
uint64_t overflowNs(Overflow which) {
  switch (which) {
    case Overflow::kProcess:
      return timeOf(lib::getCpuFreqTimesFromProcess(lib::kOverflowTaskName, false)) +
             timeOf(lib::getCpuFreqTimesFromProcess(lib::kOverflowTaskName, true));
    case Overflow::kKthread:
      return timeOf(lib::getCpuFreqTimesFromKthread(lib::kOverflowTaskName));
    case Overflow::kTop:
      return overflowOf(lib::getProcessTopTimes());
    case Overflow::kBg:
      return overflowOf(lib::getProcessBgTimes());
    case Overflow::kNone:
      break;
  }
  return 0;
}

}  // namespace

std::vector<MapFill> measureMaps() {
  std::vector<MapFill> maps;
  for (const CountedMap& map : kMaps) {
    if (std::optional<MapFill> measured = measure(map.name)) maps.push_back(std::move(*measured));
  }
  return maps;
}

Fill readFill() {
  Fill fill;
  fill.maps = measureMaps();
  for (MapFill& map : fill.maps) {
    for (const CountedMap& counted : kMaps) {
      if (map.name == counted.name && counted.overflow != Overflow::kNone) {
        map.overflowNs = overflowNs(counted.overflow);
      }
    }
  }
  fill.counts = lib::getOverflowCounts();
  return fill;
}

std::vector<std::string> fillWarnings(const Fill& fill, uint64_t percent) {
  std::vector<std::string> warnings;
  for (const MapFill& map : fill.maps) {
    if (map.capacity == 0 || map.entries * 100 <= map.capacity * percent) continue;
    const char* option = "";
    for (const CountedMap& counted : kMaps) {
      if (map.name == counted.name) option = counted.sizeOption;
    }
    warnings.push_back(
        map.name + " is " + formatPercent(map.entries, map.capacity) + "% full (" +
        std::to_string(map.entries) + " of " + std::to_string(map.capacity) + "): " +
        (map.overflowNs ? "new names go to its overflow entry" : "new processes go untracked") +
        "; `zelkcputime load --replace " + option + " N` makes room");
  }
  return warnings;
}

}  // namespace zelk::cli
