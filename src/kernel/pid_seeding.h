// Seeding of the pid maps for the processes that existed before tracking started: they never
// passed the tracepoints that fill those maps for new processes.
#pragma once

namespace com {
namespace zelkora {

// For every process in /proc, writes its name (at most 14 characters), one shared update time
// and its oom_score_adj into the three pid maps (name, last update, adj), never replacing an
// entry. A pid whose write fails is removed from all three maps. Does
// nothing unless the library is ready and tracking has started.
void doInitMap();

}  // namespace zelkora
}  // namespace com
