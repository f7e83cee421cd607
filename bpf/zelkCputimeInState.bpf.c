/* zelkCputimeInState: counts CPU time per cpufreq frequency for the whole system, per process
 * name, per kernel thread and per cgroup v2, and foreground/background time per process name.
 *
 * Times are nanoseconds of bpf_ktime_get_ns(), which is CLOCK_MONOTONIC, the library's clock.
 *
 * Frequency changes: a CPU's time is counted when the task running on it switches out, or when
 * user space settles the CPU (settle_cpu), at the frequency index in force then. A change in the
 * middle of a running period therefore moves the part of that one period before the change to the
 * new frequency; the error is at most one scheduling period per change and CPU, and never alters
 * the total. Counting at the change instead would need to know what runs on every CPU of the
 * policy; a writer of the index that knows the CPUs (the tool's sampler) settles them first. */
/* The kernel's types must come before libbpf's headers. */
/* clang-format off */
#include "vmlinux.h"
#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
/* clang-format on */

#include "maps.bpf.h"
#include "overflow.bpf.h"
#include "process_periods.bpf.h"
#include "task.bpf.h"

char LICENSE[] SEC("license") = "GPL";

/* Slot of the current frequency of this CPU's policy; false when the CPU, its policy or a valid
 * index (1 to 32) is unknown. The policy comes from this CPU's cache when it holds it. */
static __always_inline bool zelk_current_slot(__u32* slot) {
  __u32 zero = 0;
  __u32* cached = bpf_map_lookup_elem(&cpu_policy_cache_map, &zero);
  __u32 *index, policy;

  if (!cached) return false;
  if (*cached) {
    policy = *cached - 1;
  } else {
    __u32 cpu = bpf_get_smp_processor_id();
    __u32* found = bpf_map_lookup_elem(&cpu_policy_map, &cpu);

    if (!found) return false;
    policy = *found;
    *cached = policy + 1;
  }
  index = bpf_map_lookup_elem(&policy_freq_idx_map, &policy);
  if (!index || *index == 0 || *index > ZELK_FREQ_SLOTS) return false;
  *slot = *index - 1;
  return true;
}

static __always_inline void zelk_add_to_slot(struct zelk_time_in_state* value, __u32 slot,
                                             __u64 delta) {
  /* Clang knows the slot is below 32 and would drop this check, which the verifier needs. */
  asm volatile("" : "+r"(slot));
  /* Per-CPU block, written only by a switch or a settle, which never interleave on a CPU
   * (settle_cpu): a plain add is safe. */
  if (slot < ZELK_FREQ_SLOTS) value->slot[slot] += delta;
}

/* The whole-system entry: one key, which always fits. */
static __always_inline void zelk_add_total(__u32 slot, __u64 delta) {
  struct zelk_time_in_state* value;
  __u32 zero = 0;

  value = bpf_map_lookup_elem(&total_cpu_time_in_state_map, &zero);
  if (!value) {
    struct zelk_time_in_state empty = {};

    bpf_map_update_elem(&total_cpu_time_in_state_map, &zero, &empty, BPF_NOEXIST);
    value = bpf_map_lookup_elem(&total_cpu_time_in_state_map, &zero);
    if (!value) return;
  }
  zelk_add_to_slot(value, slot, delta);
}

/* Makes sure that the overflow entry `overflow` is in `map`, inserting `empty` (zeros). */
static __always_inline void zelk_ensure_overflow(void* map, const void* overflow,
                                                 const struct zelk_time_in_state* empty) {
  if (!bpf_map_lookup_elem(map, overflow)) bpf_map_update_elem(map, overflow, empty, BPF_NOEXIST);
}

/* A task's entry, made when missing; the overflow entry of its class when the map is full. The
 * overflow entries go in before any name, since a full map could not take them either; in the
 * process map both classes' go in together, since a map filled with one class's names (nearly
 * every process of a server is foreground, of a phone background) could not take the other's
 * later. */
static __always_inline void zelk_add_task_time(void* map, bool classes,
                                               const struct zelk_process_key* key, __u32 slot,
                                               __u64 delta) {
  struct zelk_time_in_state* value = bpf_map_lookup_elem(map, key);

  if (!value) {
    struct zelk_process_key overflow = {.flag = !key->flag};
    struct zelk_time_in_state empty = {};

    zelk_overflow_name(overflow.comm);
    if (classes) zelk_ensure_overflow(map, &overflow, &empty);
    overflow.flag = key->flag;
    zelk_ensure_overflow(map, &overflow, &empty);
    bpf_map_update_elem(map, key, &empty, BPF_NOEXIST);
    value = bpf_map_lookup_elem(map, key);
    if (!value) value = zelk_overflow_entry(map, &overflow);
    if (!value) return;
  }
  zelk_add_to_slot(value, slot, delta);
}

/* The running task's cgroup v2 entry, made when missing; the overflow entry when the map is full.
 * The overflow entry goes in first, as for names. Without a v2 hierarchy mounted every task is in
 * the root's cgroup, so the map holds the root's id alone. */
static __always_inline void zelk_add_cgroup_time(__u32 slot, __u64 delta) {
  zelk_cgroup_id id = zelk_running_cgroup_id();
  struct zelk_time_in_state* value = bpf_map_lookup_elem(&cgroup_time_in_state_map, &id);

  if (!value) {
    const zelk_cgroup_id overflow = ZELK_OVERFLOW_CGROUP_ID;
    struct zelk_time_in_state empty = {};

    zelk_ensure_overflow(&cgroup_time_in_state_map, &overflow, &empty);
    bpf_map_update_elem(&cgroup_time_in_state_map, &id, &empty, BPF_NOEXIST);
    value = bpf_map_lookup_elem(&cgroup_time_in_state_map, &id);
    if (!value) value = zelk_overflow_entry(&cgroup_time_in_state_map, &overflow);
    if (!value) return;
  }
  zelk_add_to_slot(value, slot, delta);
}

/* Charges what this CPU's running task has run since the CPU's last update, at the CPU's current
 * frequency, to the total and to the task's entry, and restarts the slice at `now`. The task is
 * current: at a switch the one leaving (the tracepoint fires before the switch), at a settle the
 * one running. Idle (`pid` 0) only restarts the slice. The one place where time is charged, so
 * that a switch and a settle can never charge differently. */
static __always_inline void zelk_charge_running(__u32 pid, __u64 now) {
  struct zelk_process_key key = {};
  __u32 zero = 0;
  __u64 *last, delta;
  __u32 slot;

  last = bpf_map_lookup_elem(&cpu_last_update_map, &zero);
  if (!last) return;
  delta = now - *last;
  /* Zero (as the library writes it) only starts the clock on this CPU, and makes it look its
   * policy up again: a tracking start writes cpu_policy_map first. */
  if (*last == 0 || now <= *last) {
    __u32* cached = bpf_map_lookup_elem(&cpu_policy_cache_map, &zero);

    if (cached && *last == 0) *cached = 0;
    *last = now;
    return;
  }
  *last = now;
  if (pid == 0) /* idle */
    return;
  if (!zelk_current_slot(&slot)) return;
  zelk_add_total(slot, delta);
  zelk_add_cgroup_time(slot, delta);
  if (zelk_running_task_key(&key))
    zelk_add_task_time(&kthread_time_in_state_map, /*classes=*/false, &key, slot, delta);
  else
    zelk_add_task_time(&process_time_in_state_map, /*classes=*/true, &key, slot, delta);
}

SEC(ZELK_PROGRAM_SECTION(sched, sched_switch))
int sched_switch(struct trace_event_raw_sched_switch* ctx) {
  __u64 now = bpf_ktime_get_ns();
  __u32 tgid;

  /* The last switch of an exiting process's last thread ends the process. */
  if (zelk_running_process_ended(&tgid)) zelk_end_process(tgid, now);
  zelk_charge_running(ctx->prev_pid, now);
  return 0;
}

/* Slack for the scheduler's figure of a running task's time, brought up to date at each tick
 * (10 ms at the lowest usual rate) and scheduler event, and for the interrupts and hypervisor
 * time that the CPU's clock counts and the task's leaves out (well under 1% here). */
#define ZELK_SETTLE_SLACK_NS 20000000ull
#define ZELK_SCHED_NORMAL 0
#define ZELK_SCHED_BATCH 3
#define ZELK_SCHED_IDLE 5

/* Whether the CPU's slice clock (`last`) saw the running task come in: true while the switch
 * program is attached. Once it is detached (its tracker ended), the clock stands at the last
 * switch it saw, and charging from there would give the running task time that others ran. The
 * scheduler keeps, for a task of the fair class, its run time since it was picked
 * (sum_exec_runtime - prev_sum_exec_runtime): the slice clock must not be older than that. A
 * task of another class (real-time, deadline) is left to its switch, as before settling. */
static __always_inline bool zelk_slice_seen(__u64 now, __u64 last) {
  struct task_struct* task = (struct task_struct*)bpf_get_current_task();
  __u64 ran;
  int policy;

  if (last == 0 || now <= last || (__u32)bpf_get_current_pid_tgid() == 0) return true;
  policy = BPF_CORE_READ(task, policy);
  if (policy != ZELK_SCHED_NORMAL && policy != ZELK_SCHED_BATCH && policy != ZELK_SCHED_IDLE)
    return false;
  ran = BPF_CORE_READ(task, se.sum_exec_runtime) - BPF_CORE_READ(task, se.prev_sum_exec_runtime);
  return now - last <= ran + ran / 64 + ZELK_SETTLE_SLACK_NS;
}

/* Settles the CPU it runs on: charges the running task's slice so far, as its switch would, so
 * that a read right after finds every CPU's time counted up to now. Never attached; user space
 * runs it on each CPU with BPF_PROG_TEST_RUN and BPF_F_TEST_RUN_ON_CPU: through an interrupt
 * (IPI) for another CPU, in the caller's context with preemption off for its own.
 *
 * Why it is safe there:
 * - sched_switch runs with interrupts off and cannot run during a settle (preemption is off or
 *   the CPU is in the interrupt), so the two never interleave; only they touch the slice clock
 *   and the counting maps, whose updates take their locks with interrupts off.
 * - The other programs can be interrupted by a settle, but their per-CPU adds are to other
 *   counters (overflow_count_map's untracked count; the settle's are the overflow counts).
 * - A settle can interrupt another settle: one on the caller's own CPU is interrupted by another
 *   process's settle of that CPU. settle_busy_map makes the inner one return: it ran between two
 *   instructions of the outer one, which then settles all the same. Set before the clock is read
 *   and cleared after, so that the inner one either sees it or runs wholly before the outer one.
 * - Two settles of one CPU from two processes run one after the other in its interrupt; the
 *   second charges the few microseconds between them.
 * - An offline CPU is refused (ENXIO) before the program runs; one going down runs the pending
 *   settle first, charging its stopper thread's slice as the switch to idle would.
 * - A clear or reset that races a settle is the same as one that races a switch: the slice lands
 *   on whichever side of it the update falls.
 * - A settle after tracking ended charges nothing (zelk_slice_seen). */
SEC(ZELK_RUN_PROGRAM_SECTION)
int settle_cpu(void* ctx __attribute__((unused))) {
  __u32 zero = 0;
  __u32* busy = bpf_map_lookup_elem(&settle_busy_map, &zero);
  __u64* last;
  __u64 now;

  if (!busy || *busy) return 0;
  *busy = 1;
  asm volatile("" ::: "memory");
  now = bpf_ktime_get_ns();
  last = bpf_map_lookup_elem(&cpu_last_update_map, &zero);
  if (last && zelk_slice_seen(now, *last))
    zelk_charge_running((__u32)bpf_get_current_pid_tgid(), now);
  asm volatile("" ::: "memory");
  *busy = 0;
  return 0;
}

/* Fires once per CPU of the policy. A frequency outside the library's table keeps the index. */
SEC(ZELK_PROGRAM_SECTION(power, cpu_frequency))
int cpu_frequency(struct trace_event_raw_cpu* ctx) {
  __u32 cpu = ctx->cpu_id;
  __u32* policy = bpf_map_lookup_elem(&cpu_policy_map, &cpu);
  struct zelk_freq_key key;
  __u32 *index, *current;

  if (!policy) return 0;
  key.policy = *policy;
  key.freq = ctx->state;
  index = bpf_map_lookup_elem(&freq_to_idx_map, &key);
  if (!index) return 0;
  current = bpf_map_lookup_elem(&policy_freq_idx_map, &key.policy);
  if (current)
    *current = *index;
  else
    bpf_map_update_elem(&policy_freq_idx_map, &key.policy, index, BPF_ANY);
  return 0;
}

SEC(ZELK_PROGRAM_SECTION(oom, oom_score_adj_update))
int oom_score_adj_update(struct trace_event_raw_oom_score_adj_update* ctx) {
  __u64 id = bpf_get_current_pid_tgid();
  __u32 pid = ctx->pid;
  short adj = ctx->oom_score_adj;
  struct zelk_task_name name = {};
  __u64 now = bpf_ktime_get_ns();
  bool locked, tracked;
  short* old;

  /* A thread writing through /proc/thread-self speaks for its process. */
  if (pid == (__u32)id) pid = id >> 32;
  /* The kernel serializes adj writes, so no other program changes the value meanwhile. */
  old = bpf_map_lookup_elem(&pid_to_adj_map, &pid);
  if (old && *old == adj) return 0;
  tracked = old != NULL;
  if (!tracked) {
    if (pid == id >> 32)
      zelk_read_process_name(name.comm, (struct task_struct*)bpf_get_current_task());
    else
      zelk_read_name(name.comm, ctx->comm);
  }
  locked = zelk_lock_pid(pid);
  old = bpf_map_lookup_elem(&pid_to_adj_map, &pid);
  if (old) {
    zelk_close_period(pid, *old, now);
    /* BPF_EXIST: a process that has ended meanwhile stays forgotten. */
    bpf_map_update_elem(&pid_to_adj_last_update_map, &pid, &now, BPF_EXIST);
    bpf_map_update_elem(&pid_to_adj_map, &pid, &adj, BPF_EXIST);
  } else if (!tracked) {
    /* An untracked process (one the full pid maps could not hold at its fork, or one older than
     * the tracking) is picked up; it was counted when it was new, so a failure counts nothing. */
    zelk_track_process(pid, &name, adj, now);
  } /* else it ended meanwhile */
  zelk_unlock_pid(pid, locked);
  return 0;
}

SEC(ZELK_PROGRAM_SECTION(task, task_rename))
int task_rename(struct trace_event_raw_task_rename* ctx) {
  __u64 id = bpf_get_current_pid_tgid();
  struct zelk_task_name name = {};
  __u64 now = bpf_ktime_get_ns();
  __u32 pid = (__u32)id;
  short* adj;
  bool locked;

  /* Newer kernels dropped the pid: the renamed task is then always current. */
  if (bpf_core_field_exists(ctx->pid)) pid = ctx->pid;
  /* A renamed thread does not rename its process; an untracked process is picked up when its
   * leader is renamed (exec, for one). */
  if (pid != id >> 32 && !bpf_map_lookup_elem(&pid_to_adj_map, &pid)) return 0;
  zelk_read_name(name.comm, ctx->newcomm);
  locked = zelk_lock_pid(pid);
  adj = bpf_map_lookup_elem(&pid_to_adj_map, &pid);
  if (adj) {
    zelk_close_period(pid, *adj, now);
    bpf_map_update_elem(&pid_to_comm_map, &pid, &name, BPF_EXIST);
    bpf_map_update_elem(&pid_to_adj_last_update_map, &pid, &now, BPF_EXIST);
  } else if (pid == id >> 32) {
    /* Counted when it was new, as above. */
    zelk_track_process(pid, &name, zelk_task_adj((struct task_struct*)bpf_get_current_task()), now);
  }
  zelk_unlock_pid(pid, locked);
  return 0;
}

/* Runs in the parent. Threads share their process's entries; only new processes get their own,
 * with the name and oom_score_adj (so the class) they inherited. This is where a process is new,
 * so where one that the pid maps cannot hold is counted: once. */
SEC(ZELK_PROGRAM_SECTION(sched, sched_process_fork))
int sched_process_fork(struct trace_event_raw_sched_process_fork* ctx) {
  struct task_struct* parent = (struct task_struct*)bpf_get_current_task();
  struct zelk_task_name name = {};
  __u32 pid = ctx->child_pid;
  struct task_struct* child;
  bool locked;

  child = zelk_find_child(parent, pid);
  if (!child) /* CLONE_PARENT links it to the parent's parent */
    child = zelk_find_child(BPF_CORE_READ(parent, real_parent), pid);
  if (!child) {
    /* A new thread, or a process that the walks above could not reach. */
    if (!zelk_is_new_thread(parent, pid)) zelk_count(ZELK_UNTRACKED_PROCESSES);
    return 0;
  }
  locked = zelk_lock_pid(pid);
  /* Read under the lock: an adj write that comes first is then seen here. */
  zelk_read_name(name.comm, child->comm);
  if (!zelk_track_process(pid, &name, zelk_task_adj(child), bpf_ktime_get_ns()))
    zelk_count(ZELK_UNTRACKED_PROCESSES);
  zelk_unlock_pid(pid, locked);
  return 0;
}

/* Fires for every thread; only processes have entries. A process has normally been ended at its
 * last switch already; this catches one whose last switch was missed. The pid is already free for
 * reuse here, but pids are handed out cyclically, so a new process under it this soon is not a
 * concern. */
SEC(ZELK_PROGRAM_SECTION(sched, sched_process_free))
int sched_process_free(struct trace_event_raw_sched_process_template* ctx) {
  zelk_end_process(ctx->pid, bpf_ktime_get_ns());
  return 0;
}

/* Every program of the catalogue is one of the above, named after its event; the loader's test
 * checks that there is no other. */
#define ZELK_CHECK_PROGRAM(category, event) \
  _Static_assert(sizeof(&event) != 0, "the catalogue's " #event " program");
ZELK_PROGRAMS(ZELK_CHECK_PROGRAM)
#undef ZELK_CHECK_PROGRAM
#define ZELK_CHECK_RUN_PROGRAM(name) \
  _Static_assert(sizeof(&name) != 0, "the catalogue's " #name " program");
ZELK_RUN_PROGRAMS(ZELK_CHECK_RUN_PROGRAM)
#undef ZELK_CHECK_RUN_PROGRAM
