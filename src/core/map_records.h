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

// Which map takes which record is the catalogue's (bpf/catalogue.h).
using process_key_t = zelk_process_key;            // process and kernel-thread maps
using process_info_t = zelk_task_name;             // top and background maps
using time_in_state_block_t = zelk_time_in_state;  // one possible CPU's block of a value
using freq_key_t = zelk_freq_key;                  // frequency to index

using pid_key_t = zelk_pid_key;                // the pid maps
using adj_value_t = zelk_adj_value;            // a pid's oom_score_adj
using time_value_t = zelk_time_value;          // nanoseconds on CLOCK_MONOTONIC
using cpu_key_t = zelk_cpu_key;                // CPU to policy
using policy_ordinal_t = zelk_policy_ordinal;  // a policy's place in the library's order
using freq_index_t = zelk_freq_index;          // 1-based
using zero_key_t = zelk_zero_key;              // the single-entry maps
using task_name_value_t = process_info_t;      // a pid's name

// The foreground class of an adj value, as the kernel object applies it.
inline bool isTopAdj(adj_value_t adj) { return zelk_is_foreground(adj) != 0; }

}  // namespace zelkora
}  // namespace com
