// Which task names have series of their own in the exporter, and the `other` series that holds
// the rest: a fleet's series stay bounded while every nanosecond is still in some series.
#pragma once

#include <cstdint>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "model/times.h"
#include "zelkcpufreqtime.h"

namespace zelk::cli {

// The name of the series that holds the names without one of their own. A task of that name
// counts there too, so that its labels stay unique.
inline constexpr const char* kOtherName = "other";

struct NameBounds {
  const std::regex* match = nullptr;  // a name needs to match it for a series of its own; none: any
  uint64_t minNs = 0;                 // and to have run this long
  const std::regex* always = nullptr;  // names that have one from the start (--per-frequency)
};

// One series: a name (or kOtherName), its flag, and the time it shows.
struct TaskSeries {
  std::string name;
  uint64_t flag = 0;
  Times times;
};

// Kept across the scrapes of one table (the processes or the kernel threads). A name gets its own
// series once it passes the bounds, and keeps it. If `other` has shown its time, that time stays
// there and its own series counts on from there: so no series goes backwards when a name leaves
// `other`, and all of them sum to the table's time. Only a clear of the counts makes them fall, as
// it does any counter.
class SeriesBounds {
 public:
  explicit SeriesBounds(NameBounds bounds = {}) : bounds_(bounds) {}

  // The series of one read of the table, in name order, each flag's `other` last. Not
  // thread-safe: one collection at a time.
  std::vector<TaskSeries> series(const com::zelkora::TimeInStateTable& table);

 private:
  bool passes(const std::string& name, const Times& times) const;

  using Key = std::pair<std::string, uint64_t>;

  NameBounds bounds_;
  // The names with a series of their own, and the time that they left in `other`.
  std::map<Key, Times> own_;
  // The names that the last read counted in `other`, with what it counted of them.
  std::map<Key, Times> folded_;
};

}  // namespace zelk::cli
