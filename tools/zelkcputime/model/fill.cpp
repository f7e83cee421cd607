#include "model/fill.h"

#include "core/catalogue.h"
#include "model/times.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

uint64_t timeOf(const std::optional<Times>& times) { return times ? sumTimes(*times) : 0; }

uint64_t overflowOf(const std::optional<lib::TimeTable>& table) {
  if (!table) return 0;
  const auto it = table->find({lib::kOverflowTaskName, 0});
  return it == table->end() ? 0 : it->second;
}

uint64_t overflowNs(zelk_overflow_kind kind) {
  switch (kind) {
    case ZELK_OVERFLOW_CLASSES:
      return timeOf(lib::getCpuFreqTimesFromProcess(lib::kOverflowTaskName, false)) +
             timeOf(lib::getCpuFreqTimesFromProcess(lib::kOverflowTaskName, true));
    case ZELK_OVERFLOW_KTHREAD:
      return timeOf(lib::getCpuFreqTimesFromKthread(lib::kOverflowTaskName));
    case ZELK_OVERFLOW_TOP:
      return overflowOf(lib::getProcessTopTimes());
    case ZELK_OVERFLOW_BACKGROUND:
      return overflowOf(lib::getProcessBgTimes());
    case ZELK_OVERFLOW_CGROUP:
      return timeOf(lib::getCpuFreqTimesFromCgroup(lib::kOverflowCgroupId));
    case ZELK_OVERFLOW_NONE:
      break;
  }
  return 0;
}

}  // namespace

Fill readFill() {
  Fill fill;
  fill.maps = measureMaps();
  for (MapFill& map : fill.maps) {
    const lib::MapInfo* counted = lib::findMap(map.name);
    if (counted != nullptr && counted->overflow != ZELK_OVERFLOW_NONE) {
      map.overflowNs = overflowNs(counted->overflow);
    }
  }
  fill.counts = lib::getOverflowCounts();
  return fill;
}

}  // namespace zelk::cli
