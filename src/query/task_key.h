// Conversions between the kernel's fixed 16-byte task names and the result tables' task keys.
#pragma once

#include <cstdint>
#include <string>

#include "core/map_records.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

// Replaces `out` with the name up to the first NUL, or all 16 bytes when there is none. Reuses
// the string's storage, so a caller that keeps one string across keys allocates at most once.
void assignTaskName(std::string& out, const char (&comm)[kCommLen]);

// The name's first 16 bytes, zero-padded; longer names are cut, so they match only a record
// holding exactly those 16 bytes. `flag` is 1 for true, 0 for false.
process_key_t mapKeyFromName(const std::string& name, bool flag);

}  // namespace zelkora
}  // namespace com
