// One instant of the library's tables, read in one place for every view that shows them.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "model/cgroup_rows.h"
#include "model/times.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_class_time.h"
#include "zelkcpufreqtime_settle.h"

namespace zelk::cli {

// The tables a snapshot may hold; the frequency table is always read. A view asks only for what
// it shows, so that `show total` does not walk every map.
enum SnapshotPart : unsigned {
  kTotalPart = 1u << 0,
  kProcessesPart = 1u << 1,
  kKthreadsPart = 1u << 2,
  kTopPart = 1u << 3,
  kBgPart = 1u << 4,
  kAllParts = (1u << 5) - 1,  // what the views show
  // Foreground and background time with the closed periods apart from the open ones: the
  // exporter's counters, which top and bg cannot be, as they can fall.
  kClassPartsPart = 1u << 5,
  // Time per cgroup, which only the cgroup views and the exporter show.
  kCgroupsPart = 1u << 6,
};

struct Snapshot {
  unsigned parts = 0;  // the SnapshotParts read; the tables of the others stay empty
  FreqTable freqs;
  Times total;
  com::zelkora::TimeInStateTable processes;
  com::zelkora::TimeInStateTable kthreads;
  com::zelkora::TimeTable top;
  com::zelkora::TimeTable bg;
  com::zelkora::ClassTimePartsTable topParts;
  com::zelkora::ClassTimePartsTable bgParts;
  CgroupEntries cgroups;
  // The instant the tables count up to: when the CPUs were settled, else when the last table had
  // been read.
  std::chrono::steady_clock::time_point takenAt;
};

// The library's queries; tests replace them to see the retries without a kernel.
struct SnapshotQueries {
  // Charges the running slices up to now before the tables are read, so that they are exact at
  // that instant; none where counts may lag.
  std::function<bool()> settle = [] { return com::zelkora::settleCpuTimes(); };
  std::function<std::optional<FreqTable>()> freqs = com::zelkora::getCpuFreqs;
  std::function<std::optional<Times>()> total = com::zelkora::getTotalCpuFreqTimes;
  std::function<std::optional<com::zelkora::TimeInStateTable>()> processes =
      com::zelkora::getProcessCpuFreqTimes;
  std::function<std::optional<com::zelkora::TimeInStateTable>()> kthreads =
      com::zelkora::getKthreadCpuFreqTimes;
  std::function<std::optional<com::zelkora::TimeTable>()> top = com::zelkora::getProcessTopTimes;
  std::function<std::optional<com::zelkora::TimeTable>()> bg = com::zelkora::getProcessBgTimes;
  std::function<std::optional<com::zelkora::ClassTimePartsTable>()> topParts =
      com::zelkora::getProcessTopTimeParts;
  std::function<std::optional<com::zelkora::ClassTimePartsTable>()> bgParts =
      com::zelkora::getProcessBgTimeParts;
  std::function<std::optional<CgroupEntries>()> cgroups = readCgroupEntries;
  // The single-task queries.
  std::function<std::optional<Times>(std::string, bool)> process =
      com::zelkora::getCpuFreqTimesFromProcess;
  std::function<std::optional<Times>(std::string)> kthread =
      com::zelkora::getCpuFreqTimesFromKthread;
};

// Settles before a read; `settled` says whether it did. The errno of the first failure in this
// process, which the caller tells once; 0 otherwise.
int settleForReading(const SnapshotQueries& queries, bool* settled);

struct SnapshotRequest {
  unsigned parts = kAllParts;
  // A whole-map walk fails when another process deletes the key it stands on between its steps,
  // and the total's one key is missing for a moment after a reset: each query is tried this many
  // times in all, with `pause` between tries.
  unsigned attempts = 5;
  std::chrono::milliseconds pause{10};
};

struct TakenSnapshot {
  std::optional<Snapshot> snapshot;  // all the parts asked for, or nothing
  std::string error;                 // without a snapshot: the query that kept failing, and why
  int unsettled = 0;                 // settleForReading's, to be told
};

TakenSnapshot takeSnapshot(const SnapshotRequest& request = {},
                           const SnapshotQueries& queries = {});

// Which of a process's entries a single-task view shows: a name's time in the foreground and in
// the background are two entries of the process table.
enum class ProcessClass { kBoth, kForeground, kBackground };

struct TaskQuery {
  bool kthread = false;
  std::string name;
  ProcessClass classes = ProcessClass::kBoth;  // for a process
};

struct NamedTask {
  std::string name;
  std::optional<uint64_t> flag;  // the entry's; none for both classes of a process, summed
  Times times;
};

struct TakenTask {
  std::optional<NamedTask> task;
  std::string error;  // without a task: the message to print
  int unsettled = 0;  // settleForReading's, to be told
};

// One task through the library's single-task query: both classes of a process are two queries,
// summed. The error says so when it failed because nothing at all has been counted yet.
TakenTask takeTask(const TaskQuery& query, const SnapshotQueries& queries = {});

}  // namespace zelk::cli
