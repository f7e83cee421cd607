// Cgroup ids to paths under the v2 mount, cached for the life of the process.
#pragma once

namespace com {
namespace zelkora {

// Drops the cached paths of cgroups that the last walk did not find: after a clear their ids hold
// no time any more.
void forgetRemovedCgroups();

}  // namespace zelkora
}  // namespace com
