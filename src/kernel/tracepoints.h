// The tracepoints that the kernel object's programs watch, in the order in which they are
// checked and attached.
#pragma once

namespace com {
namespace zelkora {

struct Tracepoint {
  const char* category;
  const char* event;
};

inline constexpr Tracepoint kTracepoints[] = {
    {"sched", "sched_switch"},       {"power", "cpu_frequency"}, {"sched", "sched_process_free"},
    {"sched", "sched_process_fork"}, {"task", "task_rename"},    {"oom", "oom_score_adj_update"},
};

}  // namespace zelkora
}  // namespace com
