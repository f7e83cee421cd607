// One key of a per-CPU time-in-state map, read and folded: the shared body of the total and
// single-task queries.
#pragma once

#include <optional>

#include "query/fold.h"

namespace com {
namespace zelkora {

// Looks `key` up in the map `fd` and folds its value. An absent key gives zeros while the map
// holds some other key (probed into `probeKey`, a buffer of the map's key size), and no value
// when the map is empty or the lookup fails otherwise. Needs the library state to be ready.
std::optional<TimeInStateVector> readTimeInState(int fd, const void* key, void* probeKey);

}  // namespace zelkora
}  // namespace com
