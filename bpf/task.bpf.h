/* What the programs read from task_struct, through CO-RE so that field moves between kernels
 * are relocated at load time. */
#pragma once

#include "records.h"

/* Unchanged since Linux 2.6. */
#define ZELK_PF_KTHREAD 0x00200000

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

/* `word` (8 bytes of a name, little-endian) up to its first NUL, zero after it; `ended` tells
 * that it held the NUL. The lowest byte flagged by the zero-byte test is always a real zero. */
static __always_inline __u64 zelk_before_nul(__u64 word, bool* ended) {
  const __u64 zeros = (word - 0x0101010101010101ull) & ~word & 0x8080808080808080ull;

  if (!zeros) return word;
  *ended = true;
  return word & (((zeros & -zeros) >> 7) - 1);
}

/* As zelk_read_name, with two plain loads from a BTF pointer instead of a probe read. */
static __always_inline void zelk_load_name(char dst[ZELK_COMM_LEN], const char* comm) {
  bool ended = false;
  __u64 low = zelk_before_nul(*(const __u64*)comm, &ended);
  __u64 high = ended ? 0 : zelk_before_nul(*(const __u64*)(comm + 8), &ended);

  __builtin_memcpy(dst, &low, 8);
  __builtin_memcpy(dst + 8, &high, 8);
}

/* Fills `key` for the running task and tells whether it is a kernel thread: a kernel thread by
 * its own name with flag 1, a thread of a process by the process's name and class. Kernels with
 * bpf_get_current_task_btf (5.11) are read with plain loads; older ones with probe reads, which
 * made sched_switch some 100 ns slower here. */
static __always_inline bool zelk_running_task_key(struct zelk_process_key* key) {
  struct task_struct* task;
  bool kthread;

#ifndef ZELK_PROBE_READS_ONLY
  if (bpf_core_enum_value_exists(enum bpf_func_id, BPF_FUNC_get_current_task_btf)) {
    task = bpf_get_current_task_btf();
    kthread = task->flags & ZELK_PF_KTHREAD;
    if (kthread) {
      zelk_load_name(key->comm, task->comm);
      key->flag = 1;
    } else {
      zelk_load_name(key->comm, task->group_leader->comm);
      key->flag = zelk_is_foreground(task->signal->oom_score_adj);
    }
    return kthread;
  }
#endif
  task = (struct task_struct*)bpf_get_current_task();
  kthread = zelk_is_kthread(task);
  if (kthread) {
    zelk_read_name(key->comm, task->comm);
    key->flag = 1;
  } else {
    zelk_read_process_name(key->comm, task);
    key->flag = zelk_is_foreground(zelk_task_adj(task));
  }
  return kthread;
}

/* Whether the running task is the last thread of its process to exit, switching out for the last
 * time; `tgid` is then its process. The free event would also tell, but the kernel skips that
 * program when its RCU callback interrupts a bpf() call or another program, so a process could
 * stay tracked for ever. The exit state is set and the live count dropped before the final
 * switch. */
static __always_inline bool zelk_running_process_ended(__u32* tgid) {
  struct task_struct* task;

#ifndef ZELK_PROBE_READS_ONLY
  if (bpf_core_enum_value_exists(enum bpf_func_id, BPF_FUNC_get_current_task_btf)) {
    task = bpf_get_current_task_btf();
    if (!task->exit_state || task->signal->live.counter != 0) return false;
    *tgid = task->tgid;
    return true;
  }
#endif
  task = (struct task_struct*)bpf_get_current_task();
  if (!BPF_CORE_READ(task, exit_state) || BPF_CORE_READ(task, signal, live.counter) != 0)
    return false;
  *tgid = BPF_CORE_READ(task, tgid);
  return true;
}

/* Steps taken back from the tail of a task list in search of a new task. It is linked at the tail
 * before sched_process_fork fires, but others can be linked behind it meanwhile: orphans
 * reparented to a subreaper (systemd, init) that is forking, or a sibling thread's new thread. */
#define ZELK_LIST_STEPS 16

/* The task `pid` in the list at `head`, in which tasks are linked by the field at `link`; NULL
 * when not among its last ZELK_LIST_STEPS. */
static __always_inline struct task_struct* zelk_find_in_list(struct list_head* head, __u64 link,
                                                             __u32 pid) {
  struct list_head* node = BPF_CORE_READ(head, prev);

  for (int i = 0; i < ZELK_LIST_STEPS; ++i) {
    struct task_struct* task;

    if (!node || node == head) return NULL;
    task = (void*)node - link;
    if ((__u32)BPF_CORE_READ(task, pid) == pid) return task;
    node = BPF_CORE_READ(node, prev);
  }
  return NULL;
}

/* The new process `pid` among the children of `parent`, else NULL. A new process is linked into
 * its parent's children; a new thread never is. */
static __always_inline struct task_struct* zelk_find_child(struct task_struct* parent, __u32 pid) {
  struct task_struct* child =
      zelk_find_in_list(&parent->children, bpf_core_field_offset(struct task_struct, sibling), pid);

  if (!child || (__u32)BPF_CORE_READ(child, tgid) != pid) return NULL;
  return child;
}

/* Whether `pid` is a new thread of `parent`'s process: threads are linked into their process's
 * thread list, processes are not. */
static __always_inline bool zelk_is_new_thread(struct task_struct* parent, __u32 pid) {
  struct signal_struct* signal = BPF_CORE_READ(parent, signal);

  if (!signal) return false;
  return zelk_find_in_list(&signal->thread_head,
                           bpf_core_field_offset(struct task_struct, thread_node), pid) != NULL;
}

/* The running task's cgroup v2 id, as bpf_get_current_cgroup_id() reads it (the cgroup of its
 * default hierarchy, and that cgroup's kernfs id): with four plain loads where the task has a BTF
 * pointer and the id is the 64-bit one of Linux 5.5 on, which took sched_switch from 0.45-0.48x
 * to 0.40-0.44x of the one-liner here; the helper elsewhere. */
static __always_inline __u64 zelk_running_cgroup_id(void) {
#ifndef ZELK_PROBE_READS_ONLY
  if (bpf_core_enum_value_exists(enum bpf_func_id, BPF_FUNC_get_current_task_btf) &&
      bpf_core_field_size(struct kernfs_node, id) == 8) {
    struct task_struct* task = bpf_get_current_task_btf();
    return task->cgroups->dfl_cgrp->kn->id;
  }
#endif
  return bpf_get_current_cgroup_id();
}
