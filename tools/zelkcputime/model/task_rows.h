// The library's result tables as rows for display: sorted by time, busiest first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model/times.h"
#include "zelkcpufreqtime.h"

namespace zelk::cli {

struct TaskTimes {
  std::string name;
  uint64_t flag;
  Times times;     // ns per policy and frequency, as the library returns them
  uint64_t total;  // the sum of `times`
};

struct NamedTime {
  std::string name;
  uint64_t ns;
};

// The order of the rows: total time descending, then name, then flag, so that equal times print
// in a stable order.
bool busierTask(const TaskTimes& a, const TaskTimes& b);
bool busierNamed(const NamedTime& a, const NamedTime& b);

// Whether a table's overflow entry (zelkcpufreqtime_overflow.h) is a row. A full map adds time
// to it; until then it is an empty entry of the map's own, which a table for people leaves out
// and one for programs keeps, so that its key is always there.
enum class OverflowRow { kAlways, kWithTime };

// Rows in the order above; the first `limit` rows, or all when `limit` is 0.
std::vector<TaskTimes> sortedTasks(const com::zelkora::TimeInStateTable& table, size_t limit,
                                   OverflowRow overflow = OverflowRow::kAlways);
std::vector<NamedTime> sortedNamedTimes(const com::zelkora::TimeTable& table, size_t limit,
                                        OverflowRow overflow = OverflowRow::kAlways);
// How many rows the table gives without a limit.
size_t rowCount(const com::zelkora::TimeInStateTable& table, OverflowRow overflow);

// False for an overflow entry without time under kWithTime.
bool isRow(const com::zelkora::process_key_char_t& key, uint64_t ns, OverflowRow overflow);

// A name's CPU time and its time in each class, for the joined view.
struct ClassTimes {
  std::string name;
  uint64_t cpuNs;  // both classes' entries of the process table
  uint64_t topNs;
  uint64_t bgNs;
};

// The names that ran: those with CPU time in `processes`, busiest first, then by name, with their
// time in the foreground and the background; `limit` as above. Class time is wall time, which a
// sleeping task also adds: ordered by it, idle daemons and kernel threads filled the table.
std::vector<ClassTimes> ranClassTimes(const com::zelkora::TimeInStateTable& processes,
                                      const com::zelkora::TimeTable& top,
                                      const com::zelkora::TimeTable& bg, size_t limit);

}  // namespace zelk::cli
