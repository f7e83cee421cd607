// The entries of the maps whose need grows with the machine, set when the object loads, and
// their defaults for a machine.
#pragma once

#include <cstdint>
#include <string>

namespace zelk::loader {

struct MapSizes {
  uint32_t names = 0;     // process_time_in_state_map, comm_to_toptime_map, comm_to_bgtime_map
  uint32_t kthreads = 0;  // kthread_time_in_state_map
  uint32_t pids = 0;      // pid_to_adj_last_update_map, pid_to_adj_map, pid_to_comm_map
};

// A map whose entries one of the sizes sets, and the option that sets it.
struct SizedMap {
  const char* name;
  uint32_t MapSizes::*entries;
  const char* option;
};

inline constexpr SizedMap kSizedMaps[] = {
    {"process_time_in_state_map", &MapSizes::names, "--names"},
    {"comm_to_toptime_map", &MapSizes::names, "--names"},
    {"comm_to_bgtime_map", &MapSizes::names, "--names"},
    {"kthread_time_in_state_map", &MapSizes::kthreads, "--kthreads"},
    {"pid_to_adj_last_update_map", &MapSizes::pids, "--pids"},
    {"pid_to_adj_map", &MapSizes::pids, "--pids"},
    {"pid_to_comm_map", &MapSizes::pids, "--pids"},
};

// Every CPU's block of a per-CPU counting map's value (struct zelk_time_in_state).
inline constexpr uint64_t kTimeInStateBytes = 256;

// The defaults on a machine with `possibleCpus` possible CPUs and that pid_max:
//   kthreads = min(256 + 8 x CPUs, 4096): some names per CPU (ksoftirqd/N, migration/N,
//              kworker/N:M...) and, shared, unbound kworkers, IRQ and driver threads;
//   names    = what keeps both per-CPU counting maps within 64 MiB, in [1024, 4096];
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
