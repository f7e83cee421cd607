/* The catalogue of the kernel object zelkCputimeInState: its name, where its maps and programs
 * are pinned, and one line per map and per program. The object defines its maps from this list
 * (maps.bpf.h); the library, the loader, the tool and the test bed take their tables from it, so
 * that a map is added in one line and no list can disagree with the object. Every map name is
 * spelled here and nowhere else outside the object. C for the BPF compiler, C++ for the rest. */
#ifndef ZELK_CATALOGUE_H
#define ZELK_CATALOGUE_H

#include "records.h"

#ifndef __bpf__
#include <linux/bpf.h> /* the map types; the BPF side has them from vmlinux.h */
#endif

#define ZELK_OBJECT_NAME "zelkCputimeInState"

/* Pins: the one rule, over string literals; "%s" for each part gives it as a format. */
#define ZELK_BPFFS_DIR "/sys/fs/bpf"
#define ZELK_MAP_PIN_RULE(object, map) ZELK_BPFFS_DIR "/map_" object "_" map
#define ZELK_PROGRAM_PIN_RULE(object, category, event) \
  ZELK_BPFFS_DIR "/prog_" object "_tracepoint_" category "_" event
#define ZELK_MAP_PIN(map) ZELK_MAP_PIN_RULE(ZELK_OBJECT_NAME, #map)
#define ZELK_PROGRAM_PIN(category, event) ZELK_PROGRAM_PIN_RULE(ZELK_OBJECT_NAME, #category, #event)
/* A program's ELF section, from which the loader names its pin. */
#define ZELK_PROGRAM_SECTION(category, event) "tracepoint/" #category "/" #event

/* The compiled sizes, which a load without the loader keeps. The loader sets the sized maps'
 * entries for the machine (README.md); the others stay as compiled. */
#define ZELK_NAME_ENTRIES 4096    /* process names x two classes, top and background names */
#define ZELK_KTHREAD_ENTRIES 2048 /* kernel threads: a few names per CPU plus IRQ threads */
#define ZELK_PID_ENTRIES 16384    /* live processes, not threads */
#define ZELK_CPU_ENTRIES 1024     /* CPUs and so policies, far above any phone or server here */
#define ZELK_FREQ_ENTRIES 8192    /* every frequency of every policy: the library writes them all */
#define ZELK_CGROUP_ENTRIES 4096  /* cgroups that ran a task: services, containers, pods */

/* What sets a map's entries at load: the loader's --names, --kthreads, --pids or --cgroups, or
 * nothing. */
enum zelk_size_option {
  ZELK_SIZE_FIXED,
  ZELK_SIZE_NAMES,
  ZELK_SIZE_KTHREADS,
  ZELK_SIZE_PIDS,
  ZELK_SIZE_CGROUPS,
};

/* Where a full map sends what it cannot take (records.h): a counting map to its overflow entries
 * (one per class in the process map), a pid map nowhere (the process goes untracked). */
enum zelk_overflow_kind {
  ZELK_OVERFLOW_NONE,
  ZELK_OVERFLOW_CLASSES,
  ZELK_OVERFLOW_KTHREAD,
  ZELK_OVERFLOW_TOP,
  ZELK_OVERFLOW_BACKGROUND,
  ZELK_OVERFLOW_CGROUP,
};

/* Every map, in the order of the object's definitions: X(id, name, type, key, value, size option,
 * compiled entries, overflow kind, opened), where `id` is the C++ name of the map, the size option
 * and overflow kind are the enumerators above without their prefix, and `opened` is 1 for the
 * nine maps that the library opens at initialisation, which come first, in the order it opens
 * them. All hashes
 * are preallocated: the programs run inside the scheduler, where older kernels must not
 * allocate. */
/* clang-format off */
#define ZELK_MAPS(X)                                                                              \
  X(ProcessTime, process_time_in_state_map, BPF_MAP_TYPE_PERCPU_HASH,                             \
    struct zelk_process_key, struct zelk_time_in_state, NAMES, ZELK_NAME_ENTRIES, CLASSES, 1)     \
  X(KthreadTime, kthread_time_in_state_map, BPF_MAP_TYPE_PERCPU_HASH,                             \
    struct zelk_process_key, struct zelk_time_in_state, KTHREADS, ZELK_KTHREAD_ENTRIES, KTHREAD,  \
    1)                                                                                            \
  /* Only key 0 is used; a hash so that the library's zero-then-delete clear works. */            \
  X(TotalTime, total_cpu_time_in_state_map, BPF_MAP_TYPE_PERCPU_HASH,                             \
    zelk_zero_key, struct zelk_time_in_state, FIXED, 1, NONE, 1)                                  \
  X(TopTime, comm_to_toptime_map, BPF_MAP_TYPE_HASH,                                              \
    struct zelk_task_name, zelk_time_value, NAMES, ZELK_NAME_ENTRIES, TOP, 1)                     \
  X(BgTime, comm_to_bgtime_map, BPF_MAP_TYPE_HASH,                                                \
    struct zelk_task_name, zelk_time_value, NAMES, ZELK_NAME_ENTRIES, BACKGROUND, 1)              \
  X(PidAdjUpdate, pid_to_adj_last_update_map, BPF_MAP_TYPE_HASH,                                  \
    zelk_pid_key, zelk_time_value, PIDS, ZELK_PID_ENTRIES, NONE, 1)                               \
  /* A hash, not an array: a missing entry tells the library that no clear time was recorded. */  \
  X(ClearTime, clear_time_map, BPF_MAP_TYPE_HASH,                                                 \
    zelk_zero_key, zelk_time_value, FIXED, 1, NONE, 1)                                            \
  X(PidAdj, pid_to_adj_map, BPF_MAP_TYPE_HASH,                                                    \
    zelk_pid_key, zelk_adj_value, PIDS, ZELK_PID_ENTRIES, NONE, 1)                                \
  X(PidComm, pid_to_comm_map, BPF_MAP_TYPE_HASH,                                                  \
    zelk_pid_key, struct zelk_task_name, PIDS, ZELK_PID_ENTRIES, NONE, 1)                         \
  /* A hash: a CPU the library did not describe has no entry and counts nothing, instead of      \
   * reading as policy 0. */                                                                      \
  X(CpuPolicy, cpu_policy_map, BPF_MAP_TYPE_HASH,                                                 \
    zelk_cpu_key, zelk_policy_ordinal, FIXED, ZELK_CPU_ENTRIES, NONE, 0)                          \
  X(FreqToIdx, freq_to_idx_map, BPF_MAP_TYPE_HASH,                                                \
    struct zelk_freq_key, zelk_freq_index, FIXED, ZELK_FREQ_ENTRIES, NONE, 0)                     \
  X(CpuLastUpdate, cpu_last_update_map, BPF_MAP_TYPE_PERCPU_ARRAY,                                \
    zelk_zero_key, zelk_time_value, FIXED, 1, NONE, 0)                                            \
  /* Counters of what full maps could not take (records.h). An object without it works with the  \
   * library all the same. */                                                                     \
  X(OverflowCount, overflow_count_map, BPF_MAP_TYPE_PERCPU_ARRAY,                                 \
    zelk_u32, zelk_u64, FIXED, ZELK_OVERFLOW_COUNTERS, NONE, 0)                                   \
  /* The pids whose period a program is closing right now (process_periods.bpf.h): one entry per  \
   * running program at most, so one per CPU. The object's own. */                               \
  X(PidLock, pid_lock_map, BPF_MAP_TYPE_HASH,                                                     \
    zelk_pid_key, zelk_u32, FIXED, ZELK_CPU_ENTRIES, NONE, 0)                                     \
  /* An array, read at every switch: a lookup costs a bounds check, where a hash lookup cost      \
   * about 30 ns here. A policy that was never written reads index 0, which counts nothing. */   \
  X(PolicyFreqIdx, policy_freq_idx_map, BPF_MAP_TYPE_ARRAY,                                       \
    zelk_policy_ordinal, zelk_freq_index, FIXED, ZELK_CPU_ENTRIES, NONE, 0)                      \
  /* Set while the settle program runs on a CPU (zelkCputimeInState.bpf.c). The object's own. */  \
  X(SettleBusy, settle_busy_map, BPF_MAP_TYPE_PERCPU_ARRAY,                                       \
    zelk_zero_key, zelk_u32, FIXED, 1, NONE, 0)                                                   \
  /* Time per cgroup v2, charged with the process map's. Opened by the cgroup queries, and an     \
   * object without it works with the library all the same. */                                    \
  X(CgroupTime, cgroup_time_in_state_map, BPF_MAP_TYPE_PERCPU_HASH,                               \
    zelk_cgroup_id, struct zelk_time_in_state, CGROUPS, ZELK_CGROUP_ENTRIES, CGROUP, 0)          \
  /* This CPU's policy plus one, 0 until looked up: spares each switch the hash lookup of         \
   * cpu_policy_map, about 40 ns here. Forgotten when the slice clock is zeroed, which a tracking  \
   * start does after it writes cpu_policy_map. The object's own. */                              \
  X(CpuPolicyCache, cpu_policy_cache_map, BPF_MAP_TYPE_PERCPU_ARRAY,                              \
    zelk_zero_key, zelk_u32, FIXED, 1, NONE, 0)
/* clang-format on */

/* Every program, X(category, event): attached to the tracepoint <category>:<event>, named after
 * its event, in the order in which the library checks and attaches them. */
#define ZELK_PROGRAMS(X)       \
  X(sched, sched_switch)       \
  X(power, cpu_frequency)      \
  X(sched, sched_process_free) \
  X(sched, sched_process_fork) \
  X(task, task_rename)         \
  X(oom, oom_score_adj_update)

/* Programs that are never attached: user space runs them on a chosen CPU (BPF_PROG_TEST_RUN with
 * BPF_F_TEST_RUN_ON_CPU), X(name), each in a bare "raw_tp" section and pinned by its name. */
#define ZELK_RUN_PROGRAM_SECTION "raw_tp"
#define ZELK_RUN_PROGRAM_PIN_RULE(object, name) ZELK_BPFFS_DIR "/prog_" object "_raw_tp_" name
#define ZELK_RUN_PROGRAM_PIN(name) ZELK_RUN_PROGRAM_PIN_RULE(ZELK_OBJECT_NAME, #name)
#define ZELK_RUN_PROGRAMS(X) X(settle_cpu)

/* Map types whose lookups give one value per possible CPU. */
#define ZELK_MAP_TYPE_PER_CPU(type) \
  ((type) == BPF_MAP_TYPE_PERCPU_HASH || (type) == BPF_MAP_TYPE_PERCPU_ARRAY)

#endif /* ZELK_CATALOGUE_H */
