/* The pid maps and the foreground/background periods of processes.
 *
 * Per process (keyed by its pid, the thread-group id) the maps hold its name, its oom_score_adj
 * and the moment from which that value counts. When the value or the name changes or the
 * process ends, the period since that moment (or since the last clear, if later) is added to
 * the name's top or background total; the library adds the still-open period itself. A change
 * within one class closes a period too, since the moment must always be the value's last
 * change.
 *
 * Invariant the library relies on: a pid in pid_to_adj_map always has a pid_to_comm_map entry.
 * So the name is written before the adj value, and the adj value is deleted first. */
#pragma once

#include "maps.bpf.h"
#include "overflow.bpf.h"
#include "task.bpf.h"

/* Programs on two CPUs can change one process at once: another process writes its oom_score_adj
 * while it renames itself or while its last thread exits. Each would read the same period start
 * and count the period up to its own moment, so the period would be counted twice; and a write
 * after the exit would bring a dead pid back. The kernel serializes the adj writes (one mutex)
 * and a task's renames (its task lock), and a process whose last thread is exiting renames
 * nothing, but the other pairs meet. So whatever reads or changes a tracked process's entries
 * holds its pid in pid_lock_map. A holder runs a few map operations with preemption off; a
 * waiter tries a bounded number of times (the verifier wants a bound, and the scheduler must not
 * wait long) and then goes ahead unlocked. */
#define ZELK_PID_LOCK_TRIES 1024

static __always_inline bool zelk_lock_pid(__u32 pid) {
  __u32 one = 1;

  for (int i = 0; i < ZELK_PID_LOCK_TRIES; ++i) {
    if (bpf_map_update_elem(&pid_lock_map, &pid, &one, BPF_NOEXIST) == 0) return true;
  }
  return false;
}

static __always_inline void zelk_unlock_pid(__u32 pid, bool locked) {
  if (locked) bpf_map_delete_elem(&pid_lock_map, &pid);
}

static __always_inline void zelk_add_period(void* totals, const struct zelk_task_name* name,
                                            __u64 duration) {
  struct zelk_task_name overflow;
  __u64* total = bpf_map_lookup_elem(totals, name);
  __u64 zero = 0;

  if (!total) {
    /* The overflow entry first: a full map could not take it either. */
    zelk_overflow_name(overflow.comm);
    if (!bpf_map_lookup_elem(totals, &overflow))
      bpf_map_update_elem(totals, &overflow, &zero, BPF_NOEXIST);
    if (bpf_map_update_elem(totals, name, &duration, BPF_NOEXIST) == 0) return;
    /* Another CPU inserted the name first, or the map is full. */
    total = bpf_map_lookup_elem(totals, name);
    if (!total) total = zelk_overflow_entry(totals, &overflow);
    if (!total) return;
  }
  __sync_fetch_and_add(total, duration);
}

/* Adds the period of `pid` in the class of `adj` that ends at `now`. The caller holds the pid. */
static __always_inline void zelk_close_period(__u32 pid, short adj, __u64 now) {
  struct zelk_task_name name;
  struct zelk_task_name* stored = bpf_map_lookup_elem(&pid_to_comm_map, &pid);
  __u32 zero = 0;
  __u64 start = 0;
  __u64* time;

  if (!stored) return;
  name = *stored;
  time = bpf_map_lookup_elem(&pid_to_adj_last_update_map, &pid);
  if (time) start = *time;
  time = bpf_map_lookup_elem(&clear_time_map, &zero);
  if (time && *time > start) start = *time;
  if (now <= start) return;
  if (zelk_is_foreground(adj))
    zelk_add_period(&comm_to_toptime_map, &name, now - start);
  else
    zelk_add_period(&comm_to_bgtime_map, &name, now - start);
}

static __always_inline void zelk_forget_process(__u32 pid) {
  bpf_map_delete_elem(&pid_to_adj_map, &pid);
  bpf_map_delete_elem(&pid_to_adj_last_update_map, &pid);
  bpf_map_delete_elem(&pid_to_comm_map, &pid);
}

/* Tracks `pid` from `now`; false when the full pid maps cannot hold it. Whatever its pid held
 * before is then dropped, so that its periods are never added under another process's name. The
 * caller holds the pid. */
static __always_inline bool zelk_track_process(__u32 pid, const struct zelk_task_name* name,
                                               short adj, __u64 now) {
  if (bpf_map_update_elem(&pid_to_comm_map, &pid, name, BPF_ANY) == 0 &&
      bpf_map_update_elem(&pid_to_adj_last_update_map, &pid, &now, BPF_ANY) == 0 &&
      bpf_map_update_elem(&pid_to_adj_map, &pid, &adj, BPF_ANY) == 0)
    return true;
  zelk_forget_process(pid);
  return false;
}

/* A tracked process has ended: its last period closes now and its entries go. */
static __always_inline void zelk_end_process(__u32 pid, __u64 now) {
  short* adj = bpf_map_lookup_elem(&pid_to_adj_map, &pid);
  bool locked;

  if (!adj) return;
  locked = zelk_lock_pid(pid);
  adj = bpf_map_lookup_elem(&pid_to_adj_map, &pid);
  if (adj) {
    zelk_close_period(pid, *adj, now);
    zelk_forget_process(pid);
  }
  zelk_unlock_pid(pid, locked);
}
