// The entries of the maps whose need grows with the machine, set when the object loads, and
// their defaults for a machine.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/catalogue.h"

namespace zelk::loader {

// The entries of the maps of each size option; which maps those are is the catalogue's.
struct MapSizes {
  uint32_t names = 0;     // process names (of both classes), top and background names
  uint32_t kthreads = 0;  // kernel-thread names
  uint32_t pids = 0;      // the pid maps
  uint32_t cgroups = 0;   // the cgroup map
};

// The option that sets a size, as zelk-loader and `zelkcputime load` take it; "" for none.
constexpr const char* sizeOption(zelk_size_option size) {
  switch (size) {
    case ZELK_SIZE_NAMES:
      return "--names";
    case ZELK_SIZE_KTHREADS:
      return "--kthreads";
    case ZELK_SIZE_PIDS:
      return "--pids";
    case ZELK_SIZE_CGROUPS:
      return "--cgroups";
    case ZELK_SIZE_FIXED:
      break;
  }
  return "";
}

// Where MapSizes holds a size; null for none.
constexpr uint32_t MapSizes::*sizeMember(zelk_size_option size) {
  switch (size) {
    case ZELK_SIZE_NAMES:
      return &MapSizes::names;
    case ZELK_SIZE_KTHREADS:
      return &MapSizes::kthreads;
    case ZELK_SIZE_PIDS:
      return &MapSizes::pids;
    case ZELK_SIZE_CGROUPS:
      return &MapSizes::cgroups;
    case ZELK_SIZE_FIXED:
      break;
  }
  return nullptr;
}

// A map whose entries one of the sizes sets, and the option that sets it.
struct SizedMap {
  const char* name = nullptr;
  uint32_t MapSizes::*entries = nullptr;
  const char* option = nullptr;
};

constexpr size_t countSizedMaps() {
  size_t count = 0;
  for (const com::zelkora::MapInfo& map : com::zelkora::kMaps) count += map.size != ZELK_SIZE_FIXED;
  return count;
}

template <size_t N>
constexpr std::array<SizedMap, N> sizedMaps() {
  std::array<SizedMap, N> sized{};
  size_t i = 0;
  for (const com::zelkora::MapInfo& map : com::zelkora::kMaps) {
    if (map.size != ZELK_SIZE_FIXED)
      sized[i++] = {map.name, sizeMember(map.size), sizeOption(map.size)};
  }
  return sized;
}

// The catalogue's sized maps, in its order.
inline constexpr auto kSizedMaps = sizedMaps<countSizedMaps()>();

// Every CPU's block of a per-CPU counting map's value.
inline constexpr uint64_t kTimeInStateBytes = sizeof(zelk_time_in_state);

// The defaults on a machine with `possibleCpus` possible CPUs and that pid_max:
//   kthreads = min(256 + 8 x CPUs, 4096): some names per CPU (ksoftirqd/N, migration/N,
//              kworker/N:M...) and, shared, unbound kworkers, IRQ and driver threads;
//   names    = half of what keeps the three per-CPU counting maps within 64 MiB, in
//              [1024, 4096];
//   cgroups  = names: a cgroup per service, container or pod, no more of them than names;
//   pids     = pid_max (no more processes can live at once) in [4096, 512 x CPUs], the upper
//              bound itself within [32768, 65536].
MapSizes defaultMapSizes(uint32_t possibleCpus, uint64_t pidMax);

// `sizes` with each 0 replaced by this machine's default (possible CPUs from libbpf,
// /proc/sys/kernel/pid_max); "" or why the machine could not be read.
std::string fillDefaultSizes(MapSizes* sizes);

// The value of a size option: digits only, from 1 to what max_entries holds. "" or a one-line
// error naming `option`.
std::string parseMapSize(const std::string& option, const std::string& text, uint32_t* entries);

// "names 4096, kthreads 272, pids 32768"
std::string describeSizes(const MapSizes& sizes);

}  // namespace zelk::loader
