// The library's names for the records of the kernel object zelkCputimeInState, whose layouts are
// written once, in the header that the object itself includes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../../bpf/records.h"

namespace com {
namespace zelkora {

inline constexpr size_t kCommLen = ZELK_COMM_LEN;
inline constexpr size_t kFreqSlots = ZELK_FREQ_SLOTS;

using process_key_t = zelk_process_key;            // process and kernel-thread maps
using process_info_t = zelk_task_name;             // top and background maps
using time_in_state_block_t = zelk_time_in_state;  // one possible CPU's block of a value
using freq_key_t = zelk_freq_key;                  // freq_to_idx_map

using pid_key_t = zelk_pid_key;                // pid_to_* maps
using adj_value_t = zelk_adj_value;            // pid_to_adj_map
using time_value_t = zelk_time_value;          // nanoseconds on CLOCK_MONOTONIC
using cpu_key_t = zelk_cpu_key;                // cpu_policy_map
using policy_ordinal_t = zelk_policy_ordinal;  // cpu_policy_map value, policy_freq_idx_map key
using freq_index_t = zelk_freq_index;          // 1-based
using zero_key_t = zelk_zero_key;              // total, clear_time and cpu_last_update maps
using task_name_value_t = process_info_t;      // pid_to_comm_map value

// The foreground class of an adj value, as the kernel object applies it.
inline bool isTopAdj(adj_value_t adj) { return zelk_is_foreground(adj) != 0; }

#define ZELK_OBJECT_NAME "zelkCputimeInState"
#define ZELK_MAP_PATH(name) "/sys/fs/bpf/map_" ZELK_OBJECT_NAME "_" name

inline constexpr const char kObjectName[] = ZELK_OBJECT_NAME;

inline constexpr const char kProcessTimeMapPath[] = ZELK_MAP_PATH("process_time_in_state_map");
inline constexpr const char kKthreadTimeMapPath[] = ZELK_MAP_PATH("kthread_time_in_state_map");
inline constexpr const char kTotalTimeMapPath[] = ZELK_MAP_PATH("total_cpu_time_in_state_map");
inline constexpr const char kTopTimeMapPath[] = ZELK_MAP_PATH("comm_to_toptime_map");
inline constexpr const char kBgTimeMapPath[] = ZELK_MAP_PATH("comm_to_bgtime_map");
inline constexpr const char kPidAdjUpdateMapPath[] = ZELK_MAP_PATH("pid_to_adj_last_update_map");
inline constexpr const char kClearTimeMapPath[] = ZELK_MAP_PATH("clear_time_map");
inline constexpr const char kPidAdjMapPath[] = ZELK_MAP_PATH("pid_to_adj_map");
inline constexpr const char kPidCommMapPath[] = ZELK_MAP_PATH("pid_to_comm_map");
inline constexpr const char kCpuPolicyMapPath[] = ZELK_MAP_PATH("cpu_policy_map");
inline constexpr const char kFreqToIdxMapPath[] = ZELK_MAP_PATH("freq_to_idx_map");
inline constexpr const char kCpuLastUpdateMapPath[] = ZELK_MAP_PATH("cpu_last_update_map");
inline constexpr const char kPolicyFreqIdxMapPath[] = ZELK_MAP_PATH("policy_freq_idx_map");
// Not one of the thirteen: an object may lack it.
inline constexpr const char kOverflowCountMapPath[] = ZELK_MAP_PATH("overflow_count_map");

}  // namespace zelkora
}  // namespace com
