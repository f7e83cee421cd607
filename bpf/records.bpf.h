/* Records of the pinned maps. The library reads and writes them with fixed layouts of its own,
 * so every size here is part of the contract with it and must never change. */
#pragma once

#define ZELK_COMM_LEN 16
#define ZELK_FREQ_SLOTS 32

/* Key of the process and kernel-thread maps: a task name, zero-padded after its NUL, and the
 * foreground flag (always 1 for kernel threads). */
struct zelk_process_key {
  char comm[ZELK_COMM_LEN];
  __u64 flag;
};

/* Key of the top and background maps, value of pid_to_comm_map. */
struct zelk_task_name {
  char comm[ZELK_COMM_LEN];
};

/* One CPU's block of a time-in-state value: slot j is frequency number j + 1. */
struct zelk_time_in_state {
  __u64 slot[ZELK_FREQ_SLOTS];
};

struct zelk_freq_key {
  __u32 policy;
  __u32 freq; /* kHz */
};

_Static_assert(sizeof(struct zelk_process_key) == 24, "process key is 24 bytes");
_Static_assert(sizeof(struct zelk_task_name) == 16, "task name is 16 bytes");
_Static_assert(sizeof(struct zelk_time_in_state) == 256, "time-in-state block is 256 bytes");
_Static_assert(sizeof(struct zelk_freq_key) == 8, "frequency key is 8 bytes");
