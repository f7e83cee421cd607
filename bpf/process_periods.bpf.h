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

/* Adds the period of `pid` in the class of `adj` that ends at `now`. */
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

/* A process that the full pid maps cannot hold is counted, and whatever its pid held before is
 * dropped, so that its periods are never added under another process's name. */
static __always_inline void zelk_track_process(__u32 pid, const struct zelk_task_name* name,
                                               short adj, __u64 now) {
  if (bpf_map_update_elem(&pid_to_comm_map, &pid, name, BPF_ANY) == 0 &&
      bpf_map_update_elem(&pid_to_adj_last_update_map, &pid, &now, BPF_ANY) == 0 &&
      bpf_map_update_elem(&pid_to_adj_map, &pid, &adj, BPF_ANY) == 0)
    return;
  zelk_forget_process(pid);
  zelk_count(ZELK_UNTRACKED_PROCESSES);
}

/* A tracked process has ended: its last period closes now and its entries go. */
static __always_inline void zelk_end_process(__u32 pid, __u64 now) {
  short* adj = bpf_map_lookup_elem(&pid_to_adj_map, &pid);

  if (!adj) return;
  zelk_close_period(pid, *adj, now);
  zelk_forget_process(pid);
}
