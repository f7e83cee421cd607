#include "map_sizes.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <limits>

#include "core/decimal.h"

namespace zelk::loader {
namespace {

// Of the three per-CPU maps that grow with names, kernel threads and cgroups, near what a server
// can spare.
constexpr uint64_t kPerCpuBudgetBytes = 64ull << 20;
constexpr uint64_t kMaxNames = 4096;
constexpr uint64_t kMinNames = 1024;
constexpr uint64_t kMaxKthreads = 4096;
constexpr uint64_t kMinPids = 4096;
constexpr uint64_t kPidsPerCpu = 512;
constexpr uint64_t kMaxPidsFloor = 32768;
constexpr uint64_t kMaxPids = 65536;

std::string readPidMax(uint64_t* pidMax) {
  static constexpr char kPath[] = "/proc/sys/kernel/pid_max";
  std::string text;
  if (!android::base::ReadFileToString(kPath, &text) ||
      !com::zelkora::parseDecimal<uint64_t>(android::base::Trim(text), pidMax, UINT32_MAX)) {
    return std::string("cannot read ") + kPath;
  }
  return "";
}

}  // namespace

MapSizes defaultMapSizes(uint32_t possibleCpus, uint64_t pidMax) {
  const uint64_t cpus = std::max<uint64_t>(possibleCpus, 1);
  MapSizes sizes;
  const uint64_t kthreads = std::min(256 + 8 * cpus, kMaxKthreads);
  const uint64_t budget = kPerCpuBudgetBytes / (kTimeInStateBytes * cpus);
  sizes.kthreads = static_cast<uint32_t>(kthreads);
  sizes.names = static_cast<uint32_t>(
      std::clamp(budget > kthreads ? (budget - kthreads) / 2 : 0, kMinNames, kMaxNames));
  sizes.cgroups = sizes.names;
  // A pid entry costs about 80 bytes in each of three maps, and distributions raise pid_max to
  // 4194304 on any machine: a small one gets no more entries than it can have processes.
  const uint64_t maxPids = std::clamp(kPidsPerCpu * cpus, kMaxPidsFloor, kMaxPids);
  sizes.pids = static_cast<uint32_t>(std::clamp(pidMax, kMinPids, maxPids));
  return sizes;
}

std::string fillDefaultSizes(MapSizes* sizes) {
  if (sizes->names != 0 && sizes->kthreads != 0 && sizes->pids != 0 && sizes->cgroups != 0) {
    return "";
  }
  const int cpus = libbpf_num_possible_cpus();
  if (cpus <= 0) return "cannot read the number of possible CPUs";
  uint64_t pidMax = 0;
  if (std::string error = readPidMax(&pidMax); !error.empty()) return error;
  const MapSizes defaults = defaultMapSizes(static_cast<uint32_t>(cpus), pidMax);
  for (uint32_t MapSizes::*size :
       {&MapSizes::names, &MapSizes::kthreads, &MapSizes::pids, &MapSizes::cgroups}) {
    if (sizes->*size == 0) sizes->*size = defaults.*size;
  }
  return "";
}

std::string parseMapSize(const std::string& option, const std::string& text, uint32_t* entries) {
  constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();  // max_entries is 32 bits
  if (!com::zelkora::parseDecimal(text, entries, kMax) || *entries == 0) {
    return option + " takes a number of entries from 1 to " + std::to_string(kMax);
  }
  return "";
}

std::string describeSizes(const MapSizes& sizes) {
  return "names " + std::to_string(sizes.names) + ", kthreads " + std::to_string(sizes.kthreads) +
         ", pids " + std::to_string(sizes.pids) + ", cgroups " + std::to_string(sizes.cgroups);
}

}  // namespace zelk::loader
