// Seeding of the pid maps for the processes that existed before tracking started: they never
// passed the tracepoints that fill those maps for new processes.
#pragma once

namespace com {
namespace zelkora {

// For every process in /proc, writes its name (at most 14 characters), one shared update time
// and its oom_score_adj into pid_to_comm_map, pid_to_adj_last_update_map and pid_to_adj_map,
// never replacing an entry. A pid whose write fails is removed from all three maps. Does
// nothing unless the library is ready and tracking has started.
void doInitMap();

}  // namespace zelkora
}  // namespace com
