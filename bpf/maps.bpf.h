/* The maps of zelkCputimeInState: the thirteen that the library uses, overflow_count_map and
 * pid_lock_map.
 *
 * All hash maps are preallocated: the programs run inside the scheduler, where older kernels
 * must not allocate. The loader sets the name, kernel-thread and pid sizes for the machine
 * (README.md); these are the compiled sizes, which a load without the loader keeps. A full
 * counting map sends new names' time to its overflow entry (overflow.bpf.h). */
#pragma once

#include "records.h"

#define ZELK_NAME_ENTRIES 4096    /* process names x two classes, top and background names */
#define ZELK_KTHREAD_ENTRIES 2048 /* kernel threads: a few names per CPU plus IRQ threads */
#define ZELK_PID_ENTRIES 16384    /* live processes, not threads */
#define ZELK_CPU_ENTRIES 1024     /* CPUs and so policies, far above any phone or server here */
#define ZELK_FREQ_ENTRIES 8192    /* every frequency of every policy: the library writes them all */

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
  __uint(max_entries, ZELK_NAME_ENTRIES);
  __type(key, struct zelk_process_key);
  __type(value, struct zelk_time_in_state);
} process_time_in_state_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
  __uint(max_entries, ZELK_KTHREAD_ENTRIES);
  __type(key, struct zelk_process_key);
  __type(value, struct zelk_time_in_state);
} kthread_time_in_state_map SEC(".maps");

/* Only key 0 is used; a hash so that the library's zero-then-delete clear works. */
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_HASH);
  __uint(max_entries, 1);
  __type(key, zelk_zero_key);
  __type(value, struct zelk_time_in_state);
} total_cpu_time_in_state_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_NAME_ENTRIES);
  __type(key, struct zelk_task_name);
  __type(value, zelk_time_value);
} comm_to_toptime_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_NAME_ENTRIES);
  __type(key, struct zelk_task_name);
  __type(value, zelk_time_value);
} comm_to_bgtime_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_PID_ENTRIES);
  __type(key, zelk_pid_key);
  __type(value, zelk_time_value);
} pid_to_adj_last_update_map SEC(".maps");

/* A hash, not an array: a missing entry tells the library that no clear time was recorded. */
struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 1);
  __type(key, zelk_zero_key);
  __type(value, zelk_time_value);
} clear_time_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_PID_ENTRIES);
  __type(key, zelk_pid_key);
  __type(value, zelk_adj_value);
} pid_to_adj_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_PID_ENTRIES);
  __type(key, zelk_pid_key);
  __type(value, struct zelk_task_name);
} pid_to_comm_map SEC(".maps");

/* A hash: a CPU the library did not describe has no entry and counts nothing, instead of
 * reading as policy 0. */
struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_CPU_ENTRIES);
  __type(key, zelk_cpu_key);
  __type(value, zelk_policy_ordinal);
} cpu_policy_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_FREQ_ENTRIES);
  __type(key, struct zelk_freq_key);
  __type(value, zelk_freq_index);
} freq_to_idx_map SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, zelk_zero_key);
  __type(value, zelk_time_value);
} cpu_last_update_map SEC(".maps");

/* Counters of what full maps could not take (records.h). Not one of the library's thirteen: an
 * object without it works with the library all the same. */
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, ZELK_OVERFLOW_COUNTERS);
  __type(key, __u32);
  __type(value, zelk_u64);
} overflow_count_map SEC(".maps");

/* The pids whose period a program is closing right now (process_periods.bpf.h): one entry per
 * running program at most, so one per CPU. Not one of the library's thirteen either. */
struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, ZELK_CPU_ENTRIES);
  __type(key, zelk_pid_key);
  __type(value, zelk_u32);
} pid_lock_map SEC(".maps");

/* An array, read at every switch: a lookup costs a bounds check, where a hash lookup cost about
 * 30 ns here. A policy that was never written reads index 0, which counts nothing. */
struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, ZELK_CPU_ENTRIES);
  __type(key, zelk_policy_ordinal);
  __type(value, zelk_freq_index);
} policy_freq_idx_map SEC(".maps");
