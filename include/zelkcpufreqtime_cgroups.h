// libzelkcpufreqtime: CPU time at each frequency per cgroup v2.
//
// The kernel object charges every slice it charges to a process or kernel thread also to the
// cgroup v2 the task ran in, keyed by the cgroup's id: the inode number of its directory under
// the v2 mount, 1 for the root. Tasks run in the cgroups where they are, mostly leaves, so an id's
// time is its own tasks' only; a caller that wants a subtree's time sums its descendants' ids.
// Where no v2 hierarchy is mounted every task is in the root's cgroup, and the table holds id 1
// alone.
//
// A full map adds a new cgroup's time to the overflow entry, kOverflowCgroupId, made before any
// id goes in, so that the table always sums to the total; overflowedUpdates and lostUpdates of
// zelkcpufreqtime_overflow.h count these updates with the others. A removed cgroup's time stays
// under its id until a clear; ids are not reused while the system runs.
//
// Ids are resolved to paths by walking the v2 mount, once and again when an id is not known; a
// path, once seen, stays with its id in this process after the cgroup is removed, until
// clearCgroupTimes() (or a reset from another process) removes the id from the table. An id whose
// cgroup was removed before this process saw it has no path.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

inline constexpr uint64_t kRootCgroupId = 1;
// The overflow entry's id, which no cgroup has.
inline constexpr uint64_t kOverflowCgroupId = UINT64_MAX;

using CgroupTimeTable = std::unordered_map<uint64_t, TimeInStateVector>;

// Every cgroup's time at each frequency of each policy, as getProcessCpuFreqTimes gives a
// process's. A cgroup removed during the walk may or may not be in it; the query does not fail
// for that. Empty when the loaded object has no cgroup map (an object older than it, which the
// rest of the library works with all the same) or the map cannot be read.
ZELK_API std::optional<CgroupTimeTable> getCgroupCpuFreqTimes();
// One cgroup's: zeros for an id the map does not hold while it holds another, empty as above or
// when the map is empty.
ZELK_API std::optional<TimeInStateVector> getCpuFreqTimesFromCgroup(uint64_t id);
// Deletes every cgroup's time, the overflow entry's included, and forgets the paths of cgroups
// that are gone. False when the map is missing or a deletion fails.
ZELK_API bool clearCgroupTimes();

// Where the cgroup v2 hierarchy is mounted ("/sys/fs/cgroup", or "/sys/fs/cgroup/unified" on a
// hybrid layout); empty when it is not mounted.
ZELK_API std::string getCgroupV2Mount();
// The path of `id` relative to the mount, "/" for the root, "/system.slice/foo.service" below it;
// empty when no cgroup of this id was seen.
ZELK_API std::optional<std::string> getCgroupPath(uint64_t id);
// The paths of many ids, with at most one walk of the mount: a path or nothing for each id. A walk
// forgets the removed cgroups that `ids` no longer holds: pass a table's ids, and the paths kept
// are those of its cgroups.
ZELK_API std::vector<std::optional<std::string>> getCgroupPaths(const std::vector<uint64_t>& ids);
// The id of the cgroup at `path`, relative to the mount as getCgroupPath gives it or absolute;
// empty with errno set when there is none.
ZELK_API std::optional<uint64_t> getCgroupId(const std::string& path);

}  // namespace zelkora
}  // namespace com
