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

ZELK_RECORD_ASSERT(sizeof(struct zelk_process_key) == 24 &&
                       __builtin_offsetof(struct zelk_process_key, flag) == 16,
                   "process key: 16-byte name, then the flag");
ZELK_RECORD_ASSERT(sizeof(struct zelk_task_name) == 16, "task name is 16 bytes");
ZELK_RECORD_ASSERT(sizeof(struct zelk_time_in_state) == 256, "time-in-state block is 256 bytes");
ZELK_RECORD_ASSERT(sizeof(struct zelk_freq_key) == 8 &&
                       __builtin_offsetof(struct zelk_freq_key, freq) == 4,
                   "frequency key: policy, then kHz");
ZELK_RECORD_ASSERT(sizeof(zelk_pid_key) == 4 && sizeof(zelk_adj_value) == 2 &&
                       sizeof(zelk_time_value) == 8,
                   "pid, adj and time records");

/* The class of an oom_score_adj value: foreground is -800 (the top app) and 0 to 199, everything
 * else, other negative values included, is background. */
ZELK_RECORD_RULE int zelk_is_foreground(zelk_adj_value adj) {
  return adj == -800 || (adj >= 0 && adj <= 199);
}

#endif /* ZELK_RECORDS_H */
