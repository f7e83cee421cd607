#pragma once

#include <android-base/unique_fd.h>

#include <optional>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

// Per task name: the stored totals of `mapFd` (the top or the background time map) plus the
// running period of the first live task of that name in the class (`isTop`: foreground).
std::optional<TimeTable> getProcessTime(const android::base::unique_fd& mapFd, bool isTop);

}  // namespace zelkora
}  // namespace com
