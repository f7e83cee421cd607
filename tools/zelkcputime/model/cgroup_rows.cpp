#include "model/cgroup_rows.h"

#include <unistd.h>

#include <cerrno>
#include <map>

#include "core/catalogue.h"
#include "zelkcpufreqtime_cgroups.h"
#include "zelkcpufreqtime_overflow.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

// `path` cut to its first `depth` components.
std::string truncated(const std::string& path, unsigned depth) {
  if (depth == 0) return "/";
  size_t end = 0;
  for (unsigned level = 0; level < depth; ++level) {
    end = path.find('/', end + 1);
    if (end == std::string::npos) return path;
  }
  return path.substr(0, end);
}

void addInto(const Times& times, std::map<std::string, Times>* rows, const std::string& key) {
  auto [row, inserted] = rows->try_emplace(key, times);
  if (!inserted) addTimes(times, &row->second);
}

}  // namespace

bool hasCgroupMap() {
  return access(com::zelkora::mapInfo(com::zelkora::MapId::CgroupTime).pinPath, F_OK) == 0;
}

std::optional<CgroupEntries> readCgroupEntries() {
  std::optional<lib::CgroupTimeTable> table = lib::getCgroupCpuFreqTimes();
  // An object loaded before the cgroup map existed: no cgroup has time, and the other tables
  // read as before.
  if (!table && errno == ENOENT && !hasCgroupMap()) return CgroupEntries{};
  if (!table) return std::nullopt;
  std::vector<uint64_t> ids;
  ids.reserve(table->size());
  for (const auto& entry : *table) ids.push_back(entry.first);
  std::vector<std::optional<std::string>> paths = lib::getCgroupPaths(ids);
  CgroupEntries entries;
  entries.reserve(ids.size());
  for (size_t i = 0; i < ids.size(); ++i) {
    entries.push_back({ids[i], std::move(paths[i]), std::move((*table)[ids[i]])});
  }
  return entries;
}

std::string cgroupV2Note() {
  if (!lib::getCgroupV2Mount().empty()) return "";
  return "no cgroup v2 hierarchy is mounted here, so no cgroup has a path to show (where none is "
         "mounted at all, every task counts under the root)";
}

std::vector<CgroupRow> cgroupRows(const CgroupEntries& entries, const CgroupRowSettings& settings) {
  std::map<std::string, Times> tree;
  std::optional<Times> removed, overflow;
  for (const CgroupEntry& entry : entries) {
    if (entry.id == lib::kOverflowCgroupId) {
      overflow ? (void)addTimes(entry.times, &*overflow) : (void)overflow.emplace(entry.times);
      continue;
    }
    if (!entry.path) {
      removed ? (void)addTimes(entry.times, &*removed) : (void)removed.emplace(entry.times);
      continue;
    }
    const std::string path = settings.depth ? truncated(*entry.path, *settings.depth) : *entry.path;
    // The cgroup itself and every ancestor up to the root.
    addInto(entry.times, &tree, path);
    for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;
         slash = path.rfind('/', slash - 1)) {
      addInto(entry.times, &tree, path.substr(0, slash));
    }
    if (path != "/") addInto(entry.times, &tree, "/");
  }
  std::vector<CgroupRow> rows;
  const auto keep = [&](const std::string& name) {
    return settings.match == nullptr || std::regex_search(name, *settings.match);
  };
  for (auto& [path, times] : tree) {
    if (!keep(path)) continue;
    rows.push_back({path, CgroupRowKind::kCgroup, recogniseWorkload(path), std::move(times), 0});
  }
  // Empty, the overflow entry is only the map's own; the removed have time by construction.
  if (removed && keep(kRemovedCgroupsRow)) {
    rows.push_back({kRemovedCgroupsRow, CgroupRowKind::kRemoved, {}, std::move(*removed), 0});
  }
  if (overflow && sumTimes(*overflow) != 0 && keep(lib::kOverflowTaskName)) {
    rows.push_back({lib::kOverflowTaskName, CgroupRowKind::kOverflow, {}, std::move(*overflow), 0});
  }
  for (CgroupRow& row : rows) row.total = sumTimes(row.times);
  return rows;
}

std::string normalCgroupPath(const std::string& path, const std::string& mount) {
  std::string relative = path;
  if (!mount.empty() && path.compare(0, mount.size(), mount) == 0 &&
      (path.size() == mount.size() || path[mount.size()] == '/')) {
    relative = path.substr(mount.size());
  }
  if (relative.empty() || relative[0] != '/') relative.insert(0, "/");
  while (relative.size() > 1 && relative.back() == '/') relative.pop_back();
  return relative;
}

}  // namespace zelk::cli
