#include "serve/series_bounds.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <unordered_set>

namespace zelk::cli {
namespace {

// `times` less `base`, entry by entry; false when some entry is below its base (the counts were
// cleared since) or the shapes differ.
bool subtractBase(const Times& base, Times* times) {
  if (base.size() != times->size()) return false;
  for (size_t p = 0; p < base.size(); ++p) {
    if (base[p].size() != (*times)[p].size()) return false;
    for (size_t i = 0; i < base[p].size(); ++i) {
      if ((*times)[p][i] < base[p][i]) return false;
    }
  }
  for (size_t p = 0; p < base.size(); ++p) {
    for (size_t i = 0; i < base[p].size(); ++i) (*times)[p][i] -= base[p][i];
  }
  return true;
}

Times zeroLike(const Times& times) {
  Times zero(times.size());
  for (size_t p = 0; p < times.size(); ++p) zero[p].assign(times[p].size(), 0);
  return zero;
}

}  // namespace

bool NameBounds::admits(const std::string& name, uint64_t ranNs) const {
  if (name == kOtherName) return false;
  if (always != nullptr && std::regex_match(name, *always)) return true;
  if (match != nullptr && !std::regex_match(name, *match)) return false;
  return ranNs >= minNs;
}

std::vector<TaskSeries> SeriesBounds::series(const com::zelkora::TimeInStateTable& table) {
  std::vector<Row> rows;
  rows.reserve(table.size());
  for (const auto& [key, times] : table)
    rows.push_back({&key.comm, key.flag, &times, sumTimes(times)});
  return series(rows);
}

std::vector<TaskSeries> SeriesBounds::series(const std::vector<Row>& rows) {
  std::vector<TaskSeries> out;
  std::map<uint64_t, Times> other;  // per flag
  std::map<Key, Times> folded;
  std::unordered_set<const Key*> seen;  // own_'s entries that this read has
  for (const Row& row : rows) {
    const Times& times = *row.counts;
    Key id(*row.name, row.flag);
    auto own = own_.find(id);
    if (own == own_.end() && bounds_.admits(*row.name, row.ranNs)) {
      // What `other` showed of it stays there; a name it never showed is its own from zero.
      const auto shownInOther = folded_.find(id);
      own = own_.emplace(id, shownInOther != folded_.end() ? std::move(shownInOther->second)
                                                           : zeroLike(times))
                .first;
    }
    auto otherAt = other.find(row.flag);
    if (otherAt == other.end()) otherAt = other.emplace(row.flag, zeroLike(times)).first;
    Times& otherTimes = otherAt->second;
    if (own == own_.end()) {
      addTimes(times, &otherTimes);
      folded.emplace(std::move(id), times);
      continue;
    }
    seen.insert(&own->first);
    Times shown = times;
    if (!subtractBase(own->second, &shown)) {
      own->second = zeroLike(times);  // cleared since: its own from zero again
      shown = times;
    }
    addTimes(own->second, &otherTimes);
    out.push_back({*row.name, row.flag, std::move(shown)});
  }
  folded_ = std::move(folded);
  // A name that is no longer in the table (cleared) no longer holds time in `other` either.
  for (auto it = own_.begin(); it != own_.end();) {
    it = seen.count(&it->first) != 0 ? std::next(it) : own_.erase(it);
  }
  std::sort(out.begin(), out.end(), [](const TaskSeries& a, const TaskSeries& b) {
    return a.name != b.name ? a.name < b.name : a.flag < b.flag;
  });
  for (auto& [flag, times] : other) out.push_back({kOtherName, flag, std::move(times)});
  return out;
}

namespace {

// The library's seeding pass names the processes that ran before tracking began by their first
// 14 bytes, and the kernel object every other by up to 15.
constexpr size_t kSeededNameBytes = 14;

void addRan(const com::zelkora::TimeInStateTable& table, ClassSeriesBounds::NameCpu* ran) {
  for (const auto& [key, times] : table) {
    const uint64_t ns = sumTimes(times);
    ran->exact[key.comm] += ns;
    if (key.comm.size() == kSeededNameBytes + 1) {
      ran->seeded[key.comm.substr(0, kSeededNameBytes)] += ns;
    }
  }
}

// The CPU time of the tasks that a class table names `name`: a seeded name stands for the longer
// names it begins. Empty when none ran.
std::optional<uint64_t> ranOf(const ClassSeriesBounds::NameCpu& ran, const std::string& name) {
  std::optional<uint64_t> sum;
  if (const auto it = ran.exact.find(name); it != ran.exact.end()) sum = it->second;
  if (name.size() != kSeededNameBytes) return sum;
  if (const auto it = ran.seeded.find(name); it != ran.seeded.end()) {
    sum = sum.value_or(0) + it->second;
  }
  return sum;
}

}  // namespace

ClassSeriesBounds::Series ClassSeriesBounds::series(
    const com::zelkora::ClassTimePartsTable& foreground,
    const com::zelkora::ClassTimePartsTable& background,
    const com::zelkora::TimeInStateTable& processes,
    const com::zelkora::TimeInStateTable& kthreads) {
  NameCpu ran;
  addRan(processes, &ran);
  if (kthreads_) addRan(kthreads, &ran);
  return {seriesOf(foreground, ran, &foreground_), seriesOf(background, ran, &background_)};
}

std::vector<ClassSeries> ClassSeriesBounds::seriesOf(const com::zelkora::ClassTimePartsTable& table,
                                                     const NameCpu& ran, Class* state) const {
  // The counted names, and their closed periods as one-entry counts, so that SeriesBounds keeps
  // them as it keeps CPU time.
  std::vector<Times> closed;
  std::vector<SeriesBounds::Row> rows;
  std::unordered_map<std::string, uint64_t> openOf;
  closed.reserve(table.size());
  rows.reserve(table.size());
  uint64_t otherOpenNs = 0;
  std::unordered_set<std::string> processNames;
  for (const auto& [key, parts] : table) {
    const std::optional<uint64_t> ranNs = ranOf(ran, key.comm);
    if (!kthreads_) {
      if (!ranNs && state->processNames.count(key.comm) == 0) continue;
      processNames.insert(key.comm);
    }
    closed.push_back({{parts.closedNs}});
    rows.push_back({&key.comm, 0, &closed.back(), ranNs.value_or(0)});
    openOf[key.comm] += parts.openNs;
    otherOpenNs += parts.openNs;
  }
  if (!kthreads_) state->processNames = std::move(processNames);
  std::vector<ClassSeries> out;
  for (TaskSeries& row : state->bounds.series(rows)) {
    // `other` comes last: the open periods of the names without a series of their own.
    const bool other = row.name == kOtherName;
    const uint64_t openNs = other ? otherOpenNs : openOf[row.name];
    if (!other) otherOpenNs -= openNs;
    out.push_back({std::move(row.name), row.times[0][0], openNs});
  }
  return out;
}

}  // namespace zelk::cli
