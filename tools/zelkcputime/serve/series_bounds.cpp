#include "serve/series_bounds.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace zelk::cli {
namespace {

// The counts' arithmetic, for Times and for one counter. subtractBase: `counts` less `base`;
// false, leaving them as they were, when some entry is below its base (the counts were cleared
// since) or the shapes differ.
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

bool subtractBase(uint64_t base, uint64_t* ns) {
  if (*ns < base) return false;
  *ns -= base;
  return true;
}

Times zeroLike(const Times& times) {
  Times zero(times.size());
  for (size_t p = 0; p < times.size(); ++p) zero[p].assign(times[p].size(), 0);
  return zero;
}

uint64_t zeroLike(uint64_t /*ns*/) { return 0; }

void addCounts(const Times& add, Times* to) { addTimes(add, to); }
void addCounts(uint64_t add, uint64_t* to) { *to += add; }

}  // namespace

bool NameBounds::admits(const std::string& name, uint64_t ranNs) const {
  if (name == kOtherName) return false;
  if (always != nullptr && std::regex_match(name, *always)) return true;
  if (match != nullptr && !std::regex_match(name, *match)) return false;
  return ranNs >= minNs;
}

template <typename Count>
std::vector<typename FoldedCounts<Count>::Shown> FoldedCounts<Count>::series(
    const NameBounds& bounds, const std::vector<Row>& rows) {
  ++reads_;
  std::vector<Shown> out;
  std::map<uint64_t, Count> other;  // per flag
  for (const Row& row : rows) {
    const Count& counts = *row.counts;
    // A task name (at most 15 bytes) fits in the string itself: the key allocates nothing.
    Key id(*row.name, row.flag);
    auto own = own_.find(id);
    if (own == own_.end() && bounds.admits(*row.name, row.ranNs)) {
      // What `other` showed of it stays there; a name it never showed is its own from zero.
      Entry base{zeroLike(counts)};
      if (const auto shownInOther = folded_.find(id); shownInOther != folded_.end()) {
        base.counts = std::move(shownInOther->second.counts);
        folded_.erase(shownInOther);
      }
      own = own_.emplace(id, std::move(base)).first;
    }
    auto otherAt = other.find(row.flag);
    if (otherAt == other.end()) otherAt = other.emplace(row.flag, zeroLike(counts)).first;
    if (own == own_.end()) {
      addCounts(counts, &otherAt->second);
      Entry& folded = folded_[std::move(id)];
      folded.counts = counts;  // in place: the entry keeps its buffers from the last read
      folded.read = reads_;
      continue;
    }
    own->second.read = reads_;
    Count shown = counts;
    if (!subtractBase(own->second.counts, &shown)) {
      own->second.counts = zeroLike(counts);  // cleared since: its own from zero again
      shown = counts;
    }
    addCounts(own->second.counts, &otherAt->second);
    out.push_back({row.name, row.flag, std::move(shown)});
  }
  // A name that is no longer in the table (cleared) no longer holds counts in `other` either.
  for (auto* entries : {&own_, &folded_}) {
    for (auto it = entries->begin(); it != entries->end();) {
      it = it->second.read == reads_ ? std::next(it) : entries->erase(it);
    }
  }
  std::sort(out.begin(), out.end(), [](const Shown& a, const Shown& b) {
    return *a.name != *b.name ? *a.name < *b.name : a.flag < b.flag;
  });
  for (auto& [flag, counts] : other) out.push_back({nullptr, flag, std::move(counts)});
  return out;
}

template class FoldedCounts<Times>;
template class FoldedCounts<uint64_t>;

std::vector<TaskSeries> SeriesBounds::series(const com::zelkora::TimeInStateTable& table) {
  std::vector<FoldedCounts<Times>::Row> rows;
  rows.reserve(table.size());
  for (const auto& [key, times] : table) {
    rows.push_back({&key.comm, key.flag, &times, sumTimes(times)});
  }
  std::vector<TaskSeries> out;
  for (auto& row : counts_.series(bounds_, rows)) {
    out.push_back({row.name != nullptr ? *row.name : kOtherName, row.flag, std::move(row.counts)});
  }
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
  // The counted names with their closed periods, kept as the task series keep CPU time.
  std::vector<FoldedCounts<uint64_t>::Row> rows;
  std::unordered_map<std::string_view, uint64_t> openOf;
  rows.reserve(table.size());
  uint64_t otherOpenNs = 0;
  std::unordered_set<std::string> processNames;
  for (const auto& [key, parts] : table) {
    const std::optional<uint64_t> ranNs = ranOf(ran, key.comm);
    if (!kthreads_) {
      if (!ranNs && state->processNames.count(key.comm) == 0) continue;
      processNames.insert(key.comm);
    }
    rows.push_back({&key.comm, 0, &parts.closedNs, ranNs.value_or(0)});
    openOf[key.comm] += parts.openNs;
    otherOpenNs += parts.openNs;
  }
  if (!kthreads_) state->processNames = std::move(processNames);
  std::vector<ClassSeries> out;
  for (const auto& row : state->closed.series(bounds_, rows)) {
    // `other` comes last: the open periods of the names without a series of their own.
    if (row.name == nullptr) {
      out.push_back({kOtherName, row.counts, otherOpenNs});
      continue;
    }
    const uint64_t openNs = openOf[*row.name];
    otherOpenNs -= openNs;
    out.push_back({*row.name, row.counts, openNs});
  }
  return out;
}

}  // namespace zelk::cli
