/* What the programs read from task_struct, through CO-RE so that field moves between kernels
 * are relocated at load time. */
#pragma once

#include "records.bpf.h"

/* Unchanged since Linux 2.6. */
#define ZELK_PF_KTHREAD 0x00200000

/* The library's class rule: foreground is -800 and 0 to 199, everything else background. */
static __always_inline bool zelk_is_foreground(short adj) {
  return adj == -800 || (adj >= 0 && adj <= 199);
}

static __always_inline bool zelk_is_kthread(struct task_struct* task) {
  return BPF_CORE_READ(task, flags) & ZELK_PF_KTHREAD;
}

/* Copies a kernel name into `dst`, which the caller has zeroed: the string read stops at the
 * NUL, so the bytes after it stay zero even when the kernel's copy holds an older, longer name
 * behind it (set_task_comm did not pad before Linux 5.x). */
static __always_inline void zelk_read_name(char dst[ZELK_COMM_LEN], const char* src) {
  bpf_probe_read_kernel_str(dst, ZELK_COMM_LEN, src);
}

/* A process is named by its thread-group leader, whichever of its threads runs. */
static __always_inline void zelk_read_process_name(char dst[ZELK_COMM_LEN],
                                                   struct task_struct* task) {
  struct task_struct* leader = BPF_CORE_READ(task, group_leader);

  zelk_read_name(dst, leader->comm);
}

static __always_inline short zelk_task_adj(struct task_struct* task) {
  return BPF_CORE_READ(task, signal, oom_score_adj);
}

/* The newest child of `parent` when it is the process leader `pid`, else NULL. A new process
 * is linked at the tail of its parent's children before sched_process_fork fires; a new thread
 * never is. */
static __always_inline struct task_struct* zelk_newest_child(struct task_struct* parent,
                                                             __u32 pid) {
  struct list_head* head = &parent->children;
  struct list_head* tail = BPF_CORE_READ(parent, children.prev);
  struct task_struct* child;

  if (!tail || tail == head) return NULL;
  child = (void*)tail - bpf_core_field_offset(struct task_struct, sibling);
  if ((__u32)BPF_CORE_READ(child, pid) != pid || (__u32)BPF_CORE_READ(child, tgid) != pid)
    return NULL;
  return child;
}
