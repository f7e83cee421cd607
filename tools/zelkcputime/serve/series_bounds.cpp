#include "serve/series_bounds.h"

#include <algorithm>
#include <optional>

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
  std::set<Key> present;
  for (const Row& row : rows) {
    const Times& times = *row.counts;
    Key id(*row.name, row.flag);
    present.insert(id);
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
    it = present.count(it->first) != 0 ? std::next(it) : own_.erase(it);
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

// CPU time per name, over both flags.
void addRan(const com::zelkora::TimeInStateTable& table, std::map<std::string, uint64_t>* ran) {
  for (const auto& [key, times] : table) (*ran)[key.comm] += sumTimes(times);
}

// The CPU time of the tasks that a class table names `name`: a seeded name stands for the longer
// names it begins. Empty when none ran.
std::optional<uint64_t> ranOf(const std::map<std::string, uint64_t>& ran, const std::string& name) {
  std::optional<uint64_t> sum;
  if (const auto it = ran.find(name); it != ran.end()) sum = it->second;
  if (name.size() != kSeededNameBytes) return sum;
  for (auto it = ran.upper_bound(name);
       it != ran.end() && it->first.compare(0, name.size(), name) == 0; ++it) {
    if (it->first.size() == kSeededNameBytes + 1) sum = sum.value_or(0) + it->second;
  }
  return sum;
}

}  // namespace

std::vector<ClassSeries> ClassSeriesBounds::series(const com::zelkora::ClassTimePartsTable& table,
                                                   const com::zelkora::TimeInStateTable& processes,
                                                   const com::zelkora::TimeInStateTable& kthreads) {
  std::map<std::string, uint64_t> ran;
  addRan(processes, &ran);
  if (kthreads_) addRan(kthreads, &ran);
  // The counted names, and their closed periods as one-entry counts, so that SeriesBounds keeps
  // them as it keeps CPU time.
  std::vector<
      const std::pair<const com::zelkora::process_key_char_t, com::zelkora::ClassTimeParts>*>
      entries;
  std::vector<uint64_t> ranNs;
  std::set<std::string> processNames;
  for (const auto& entry : table) {
    const std::string& name = entry.first.comm;
    const std::optional<uint64_t> nameRan = ranOf(ran, name);
    if (!kthreads_) {
      if (!nameRan && processNames_.count(name) == 0) continue;
      processNames.insert(name);
    }
    entries.push_back(&entry);
    ranNs.push_back(nameRan.value_or(0));
  }
  if (!kthreads_) processNames_ = std::move(processNames);
  std::vector<Times> closed(entries.size());
  std::vector<SeriesBounds::Row> rows(entries.size());
  std::map<std::string, uint64_t> openOf;
  uint64_t otherOpenNs = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    const auto& [key, parts] = *entries[i];
    closed[i] = {{parts.closedNs}};
    rows[i] = {&key.comm, 0, &closed[i], ranNs[i]};
    openOf[key.comm] += parts.openNs;
    otherOpenNs += parts.openNs;
  }
  std::vector<ClassSeries> out;
  for (const TaskSeries& row : bounds_.series(rows)) {
    // `other` comes last: the open periods of the names without a series of their own.
    const bool other = row.name == kOtherName;
    const uint64_t openNs = other ? otherOpenNs : openOf[row.name];
    if (!other) otherOpenNs -= openNs;
    out.push_back({row.name, row.times[0][0], openNs});
  }
  return out;
}

}  // namespace zelk::cli
