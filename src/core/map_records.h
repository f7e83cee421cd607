// Records of the maps of the kernel object zelkCputimeInState. The kernel copies exactly its own
// key and value sizes, so these layouts are the contract with that object: any change here must
// be made there too.
#pragma once

#include <cstddef>
#include <cstdint>

namespace com {
namespace zelkora {

inline constexpr size_t kCommLen = 16;

// Key of the process and kernel-thread time-in-state maps.
struct process_key_t {
  char comm[kCommLen];  // NUL-terminated and zero-padded when shorter than 16 bytes
  uint64_t flag;        // 0 or 1
};

// Key of the top and background time maps.
struct process_info_t {
  char comm[kCommLen];
};

// Value of the time-in-state maps, one block per possible CPU: slot j is the time spent at the
// policy's j-th frequency (from 0). The kernel numbers frequencies from 1, so slot j is index j+1.
inline constexpr size_t kFreqSlots = 32;
struct time_in_state_block_t {
  uint64_t slot[kFreqSlots];
};

// Key of freq_to_idx_map.
struct freq_key_t {
  uint32_t policy;
  uint32_t freq;  // kHz
};

using pid_key_t = int32_t;                 // pid_to_* maps
using adj_value_t = int16_t;               // pid_to_adj_map
using time_value_t = uint64_t;             // nanoseconds on CLOCK_MONOTONIC
using cpu_key_t = uint32_t;                // cpu_policy_map
using policy_ordinal_t = uint32_t;         // cpu_policy_map value, policy_freq_idx_map key
using freq_index_t = uint32_t;             // 1-based
using zero_key_t = uint32_t;               // total, clear_time and cpu_last_update maps
using task_name_value_t = process_info_t;  // pid_to_comm_map value

static_assert(sizeof(process_key_t) == 24 && offsetof(process_key_t, comm) == 0 &&
              offsetof(process_key_t, flag) == 16);
static_assert(sizeof(process_info_t) == 16 && offsetof(process_info_t, comm) == 0);
static_assert(sizeof(time_in_state_block_t) == 256);
static_assert(sizeof(freq_key_t) == 8 && offsetof(freq_key_t, policy) == 0 &&
              offsetof(freq_key_t, freq) == 4);
static_assert(sizeof(pid_key_t) == 4 && sizeof(adj_value_t) == 2 && sizeof(time_value_t) == 8);
static_assert(sizeof(cpu_key_t) == 4 && sizeof(policy_ordinal_t) == 4 &&
              sizeof(freq_index_t) == 4 && sizeof(zero_key_t) == 4);

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

}  // namespace zelkora
}  // namespace com
