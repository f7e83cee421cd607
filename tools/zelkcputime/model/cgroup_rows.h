// Time per cgroup: the library's table with each id's path, and the rows the views show, where a
// cgroup's time includes its descendants'.
#pragma once

#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "model/cgroup_workload.h"
#include "model/times.h"

namespace zelk::cli {

struct CgroupEntry {
  uint64_t id;
  std::optional<std::string> path;  // under the v2 mount; none for a cgroup removed unseen
  Times times;                      // its own tasks' only
};
using CgroupEntries = std::vector<CgroupEntry>;

// Whether the loaded object has the cgroup map: one loaded by an older tool has not.
bool hasCgroupMap();

// The library's table with the paths: empty without the cgroup map, nothing when it cannot be
// read.
std::optional<CgroupEntries> readCgroupEntries();

// "" where the cgroup v2 hierarchy is mounted; otherwise why no row has a path.
std::string cgroupV2Note();

enum class CgroupRowKind { kCgroup, kRemoved, kOverflow };

// The rows without a path: cgroups removed before this process could see their path, and the
// map's overflow entry.
inline constexpr char kRemovedCgroupsRow[] = "<removed cgroups>";

struct CgroupRow {
  std::string path;  // "/", "/system.slice", ...; a name above for the other kinds
  CgroupRowKind kind = CgroupRowKind::kCgroup;
  CgroupWorkload workload;
  Times times;  // its own and all its descendants'
  uint64_t total = 0;
};

struct CgroupRowSettings {
  std::optional<unsigned> depth;      // levels below the root; deeper cgroups fold into their
                                      // ancestor at this depth; none: every level
  const std::regex* match = nullptr;  // rows whose path (or name) it finds somewhere
};

// Every cgroup down to the depth, in path order (each parent before its children), then the
// removed cgroups and the overflow entry where they have time. Without a match the root's row
// plus those two hold all the time of the table.
std::vector<CgroupRow> cgroupRows(const CgroupEntries& entries, const CgroupRowSettings& settings);

// `path` as the rows spell it: relative to the v2 mount when under it, with a leading '/' and no
// trailing one.
std::string normalCgroupPath(const std::string& path, const std::string& mount);

}  // namespace zelk::cli
