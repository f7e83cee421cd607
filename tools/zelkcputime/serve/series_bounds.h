// Which task names have series of their own in the exporter, and the `other` series that holds
// the rest: a fleet's series stay bounded while every nanosecond is still in some series.
#pragma once

#include <cstdint>
#include <regex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "model/times.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_class_time.h"

namespace zelk::cli {

// The name of the series that holds the names without one of their own. A task of that name
// counts there too, so that its labels stay unique.
inline constexpr const char* kOtherName = "other";

struct NameBounds {
  const std::regex* match = nullptr;  // a name needs to match it for a series of its own; none: any
  uint64_t minNs = 0;                 // and to have run this long
  const std::regex* always = nullptr;  // names that have one from the start (--per-frequency)

  // The one rule for every bounded family: whether `name`, whose tasks have run `ranNs` of CPU,
  // has series of its own.
  bool admits(const std::string& name, uint64_t ranNs) const;
};

// One series: a name (or kOtherName), its flag, and the time it shows.
struct TaskSeries {
  std::string name;
  uint64_t flag = 0;
  Times times;
};

// The rule's bookkeeping, kept across the reads of one table, for counts of one kind: Times, or
// one counter. A name gets its own series once it passes the bounds, and keeps it. If `other` has
// shown its counts, they stay there and its own series counts on from there: so no series goes
// backwards when a name leaves `other`, and all of them sum to the table's. Only a clear of the
// counts makes them fall, as it does any counter.
template <typename Count>
class FoldedCounts {
 public:
  // One name's counts, and the CPU time that its bound is taken from.
  struct Row {
    const std::string* name;
    uint64_t flag;
    const Count* counts;
    uint64_t ranNs;
  };
  struct Shown {
    const std::string* name;  // the row's; null for `other`
    uint64_t flag;
    Count counts;
  };
  // In name order, each flag's `other` last. Not thread-safe: one read at a time.
  std::vector<Shown> series(const NameBounds& bounds, const std::vector<Row>& rows);

 private:
  using Key = std::pair<std::string, uint64_t>;
  struct KeyHash {
    size_t operator()(const Key& key) const {
      return std::hash<std::string>{}(key.first) ^ (key.second << 1);
    }
  };
  struct Entry {
    Count counts;
    uint64_t read = 0;  // the last read that had the name
  };

  // The names with a series of their own, and the counts that they left in `other`.
  std::unordered_map<Key, Entry, KeyHash> own_;
  // The names that the last read counted in `other`, with what it counted of them.
  std::unordered_map<Key, Entry, KeyHash> folded_;
  uint64_t reads_ = 0;
};

// The task series of one table (the processes or the kernel threads), each name bounded by its
// own CPU time.
class SeriesBounds {
 public:
  explicit SeriesBounds(NameBounds bounds = {}) : bounds_(bounds) {}

  // The series of one read of the table, in name order, each flag's `other` last. Not
  // thread-safe: one collection at a time.
  std::vector<TaskSeries> series(const com::zelkora::TimeInStateTable& table);

 private:
  NameBounds bounds_;
  FoldedCounts<Times> counts_;
};

// Time in a class of one name: the periods that have ended (a counter) and the open ones (a gauge).
struct ClassSeries {
  std::string name;
  uint64_t closedNs = 0;
  uint64_t openNs = 0;
};

// A class table (time in the foreground, or in the background) bounded as the processes are: a
// name has series of its own once it passes the bounds with the CPU time that its processes have
// run (both flags of the process table), else it counts in `other`. The closed periods are kept
// as the task series' CPU time is (FoldedCounts), so they never go backwards and sum to what the
// counted names hold. The pid maps hold kernel threads too, whose class time is wall time: without
// `kthreads` a name counts only once it has run as a process (it is in the process table), and then
// for as long as it is in the class table; with it every name counts, a kernel thread's bounded by
// its CPU time in the kernel-thread table.
class ClassSeriesBounds {
 public:
  explicit ClassSeriesBounds(NameBounds bounds = {}, bool kthreads = false)
      : bounds_(bounds), kthreads_(kthreads) {}

  struct Series {
    std::vector<ClassSeries> foreground, background;
  };
  // The series of one read of the two class tables, each in name order with `other` last;
  // `processes` and `kthreads` are the CPU tables of the same collection. Not thread-safe.
  Series series(const com::zelkora::ClassTimePartsTable& foreground,
                const com::zelkora::ClassTimePartsTable& background,
                const com::zelkora::TimeInStateTable& processes,
                const com::zelkora::TimeInStateTable& kthreads);

  // CPU time by name, and of the 15-byte names by their first 14 bytes.
  struct NameCpu {
    std::unordered_map<std::string, uint64_t> exact, seeded;
  };

 private:
  struct Class {
    FoldedCounts<uint64_t> closed;
    std::unordered_set<std::string> processNames;  // the names it counts as processes'
  };
  std::vector<ClassSeries> seriesOf(const com::zelkora::ClassTimePartsTable& table,
                                    const NameCpu& ran, Class* state) const;

  NameBounds bounds_;
  bool kthreads_;
  Class foreground_, background_;
};

}  // namespace zelk::cli
