// How the whole-map process and kernel-thread queries read their maps.
#pragma once

namespace com {
namespace zelkora {

// True: every later walk steps key by key, as on a kernel without batch lookups for hash maps;
// false: walks try batch lookups again. For tests of either path on one kernel.
void setPerElementTaskWalk(bool forced);

}  // namespace zelkora
}  // namespace com
