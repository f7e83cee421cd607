// Emptying a whole pinned map, entry by entry.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string>

#include "core/map_records.h"

namespace com {
namespace zelkora {

// A pass that takes longer than this is logged as slow.
inline constexpr uint64_t kSlowClearNs = 1000000000;

// Deletes the map's first key until there is none, so keys that the kernel adds during the pass
// are deleted too. True when the pass ends on an empty map, or on a key that someone else deleted
// first; false with an error message on any other failure, and false silently when the map is
// not open. `key` is only a buffer, `mapName` only names the map in messages. The caller holds
// the map's lock exclusively.
template <typename KeyT>
bool clearMap(const android::base::unique_fd& mapFd, KeyT key, std::string mapName);

extern template bool clearMap<process_key_t>(const android::base::unique_fd&, process_key_t,
                                             std::string);
extern template bool clearMap<process_info_t>(const android::base::unique_fd&, process_info_t,
                                              std::string);
extern template bool clearMap<zelk_cgroup_id>(const android::base::unique_fd&, zelk_cgroup_id,
                                              std::string);

// The clock that times a pass: getTimeSinceBoot. Tests of the slow-pass warning replace it.
extern uint64_t (*gClearMapClock)();

}  // namespace zelkora
}  // namespace com
