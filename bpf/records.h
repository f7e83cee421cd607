/* Records of the pinned maps, and the one rule both sides apply to them. The kernel object, the
 * library and the test bed all include this header, so that a layout is written once; the kernel
 * copies exactly these key and value sizes, so every size here is part of the contract and must
 * never change. C for the BPF compiler, C++ for the library: fixed-width kernel types only. */
#ifndef ZELK_RECORDS_H
#define ZELK_RECORDS_H

/* The BPF side has the kernel's types from vmlinux.h; the library has <stdint.h>, whose 64-bit
 * type is a different C++ type from __u64 on some targets. */
#ifdef __bpf__
typedef __s16 zelk_s16;
typedef __u32 zelk_u32;
typedef __s32 zelk_s32;
typedef __u64 zelk_u64;
#else
#include <stdint.h>
typedef int16_t zelk_s16;
typedef uint32_t zelk_u32;
typedef int32_t zelk_s32;
typedef uint64_t zelk_u64;
#endif

#ifdef __cplusplus
#define ZELK_RECORD_ASSERT static_assert
#define ZELK_RECORD_RULE inline
#else
#define ZELK_RECORD_ASSERT _Static_assert
#define ZELK_RECORD_RULE static __always_inline
#endif

#define ZELK_COMM_LEN 16
#define ZELK_FREQ_SLOTS 32

/* Key of the process and kernel-thread maps: a task name, NUL-terminated and zero-padded when
 * shorter than 16 bytes, and the foreground flag, 0 or 1 (always 1 for kernel threads). */
struct zelk_process_key {
  char comm[ZELK_COMM_LEN];
  zelk_u64 flag;
};

/* Key of the top and background maps, value of pid_to_comm_map. */
struct zelk_task_name {
  char comm[ZELK_COMM_LEN];
};

/* One CPU's block of a time-in-state value: slot j is the time at the policy's frequency number
 * j + 1 (the kernel numbers frequencies from 1). */
struct zelk_time_in_state {
  zelk_u64 slot[ZELK_FREQ_SLOTS];
};

/* Key of freq_to_idx_map. */
struct zelk_freq_key {
  zelk_u32 policy;
  zelk_u32 freq; /* kHz */
};

/* The plain records: pids key the pid maps, adj is a task's oom_score_adj, times are
 * nanoseconds of CLOCK_MONOTONIC, and the single-entry maps use key 0. */
typedef zelk_s32 zelk_pid_key; /* pid_t */
typedef zelk_s16 zelk_adj_value;
typedef zelk_u64 zelk_time_value;
typedef zelk_u32 zelk_cpu_key;
typedef zelk_u32 zelk_policy_ordinal; /* cpu_policy_map value, policy_freq_idx_map key */
typedef zelk_u32 zelk_freq_index;     /* from 1; 0 counts nothing */
typedef zelk_u32 zelk_zero_key;
/* Key of the cgroup map: the cgroup v2 id, which is the inode number of the cgroup's directory
 * under the v2 mount (what name_to_handle_at gives for it). The root's is 1. */
typedef zelk_u64 zelk_cgroup_id;

ZELK_RECORD_ASSERT(sizeof(struct zelk_process_key) == 24 &&
                       __builtin_offsetof(struct zelk_process_key, flag) == 16,
                   "process key: 16-byte name, then the flag");
ZELK_RECORD_ASSERT(sizeof(struct zelk_task_name) == 16, "task name is 16 bytes");
ZELK_RECORD_ASSERT(sizeof(struct zelk_time_in_state) == 256, "time-in-state block is 256 bytes");
ZELK_RECORD_ASSERT(sizeof(struct zelk_freq_key) == 8 &&
                       __builtin_offsetof(struct zelk_freq_key, freq) == 4,
                   "frequency key: policy, then kHz");
ZELK_RECORD_ASSERT(sizeof(zelk_pid_key) == 4 && sizeof(zelk_adj_value) == 2 &&
                       sizeof(zelk_time_value) == 8 && sizeof(zelk_cgroup_id) == 8,
                   "pid, adj, time and cgroup records");

/* The overflow entry of a counting map: where the object counts what a full map cannot take a
 * new entry for, so that nothing is lost. Its name is 16 bytes without a NUL, which no task can
 * take: the kernel keeps every task name NUL-terminated within 16 bytes. The process map has one
 * per class (flag 0 and 1), made together, the kernel-thread map one with flag 1, the top and
 * background maps one each. Clears delete them with the rest, and the object adds them again
 * before the next new name. */
#define ZELK_OVERFLOW_COMM "<map overflowed>"
ZELK_RECORD_ASSERT(sizeof(ZELK_OVERFLOW_COMM) == ZELK_COMM_LEN + 1, "16 bytes and no NUL");
/* The same bytes as two little-endian words, for the programs: a string constant would put a
 * read-only data map into the object. */
#define ZELK_OVERFLOW_COMM_LOW 0x65766f2070616d3cull
#define ZELK_OVERFLOW_COMM_HIGH 0x3e6465776f6c6672ull
/* The cgroup map's overflow entry: an id no cgroup has (ids are inode numbers, counted up from 1). */
#define ZELK_OVERFLOW_CGROUP_ID 0xffffffffffffffffull
#ifdef __cplusplus
constexpr bool zelk_overflow_words_match() {
  for (int i = 0; i < ZELK_COMM_LEN; ++i) {
    const zelk_u64 word = i < 8 ? ZELK_OVERFLOW_COMM_LOW : ZELK_OVERFLOW_COMM_HIGH;
    if (static_cast<char>(word >> (8 * (i % 8))) != ZELK_OVERFLOW_COMM[i]) return false;
  }
  return true;
}
static_assert(zelk_overflow_words_match(), "the words spell the overflow name");
#endif

/* Counters of overflow_count_map, a per-CPU array: one per index, summed over CPUs. */
enum zelk_overflow_counter {
  /* New processes that the pid maps could not hold, each counted once, at its fork: their
   * foreground and background periods are not counted (their CPU time is). */
  ZELK_UNTRACKED_PROCESSES = 0,
  /* Time updates added to an overflow entry because their map was full. */
  ZELK_OVERFLOWED_UPDATES = 1,
  /* Time updates lost: a full map that had no overflow entry either (a clear deleted it between
   * the program making sure of it and adding to it, or a reset deleted it by name). */
  ZELK_LOST_UPDATES = 2,
  ZELK_OVERFLOW_COUNTERS = 3,
};

/* The class of an oom_score_adj value: foreground is -800 (the top app) and 0 to 199, everything
 * else, other negative values included, is background. */
ZELK_RECORD_RULE int zelk_is_foreground(zelk_adj_value adj) {
  return adj == -800 || (adj >= 0 && adj <= 199);
}

#endif /* ZELK_RECORDS_H */
