#include "serve/series_bounds.h"

#include <algorithm>

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

bool SeriesBounds::passes(const std::string& name, const Times& times) const {
  if (name == kOtherName) return false;
  if (bounds_.always != nullptr && std::regex_match(name, *bounds_.always)) return true;
  if (bounds_.match != nullptr && !std::regex_match(name, *bounds_.match)) return false;
  return sumTimes(times) >= bounds_.minNs;
}

std::vector<TaskSeries> SeriesBounds::series(const com::zelkora::TimeInStateTable& table) {
  std::vector<TaskSeries> rows;
  std::map<uint64_t, Times> other;  // per flag
  std::map<Key, Times> folded;
  for (const auto& [key, times] : table) {
    Key id(key.comm, key.flag);
    auto own = own_.find(id);
    if (own == own_.end() && passes(key.comm, times)) {
      // What `other` showed of it stays there; a name it never showed is its own from zero.
      const auto shownInOther = folded_.find(id);
      own = own_.emplace(id, shownInOther != folded_.end() ? std::move(shownInOther->second)
                                                           : zeroLike(times))
                .first;
    }
    auto otherAt = other.find(key.flag);
    if (otherAt == other.end()) otherAt = other.emplace(key.flag, zeroLike(times)).first;
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
    rows.push_back({key.comm, key.flag, std::move(shown)});
  }
  folded_ = std::move(folded);
  // A name that is no longer in the table (cleared) no longer holds time in `other` either.
  for (auto it = own_.begin(); it != own_.end();) {
    it = table.count({it->first.first, it->first.second}) != 0 ? std::next(it) : own_.erase(it);
  }
  std::sort(rows.begin(), rows.end(), [](const TaskSeries& a, const TaskSeries& b) {
    return a.name != b.name ? a.name < b.name : a.flag < b.flag;
  });
  for (auto& [flag, times] : other) rows.push_back({kOtherName, flag, std::move(times)});
  return rows;
}

}  // namespace zelk::cli
