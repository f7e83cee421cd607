// The kernel's possible CPUs, which size every per-CPU map value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace com {
namespace zelkora {

// Counts the CPUs of a kernel CPU list such as "0-3,6\n" (5). No value for malformed text.
std::optional<uint32_t> parseCpuListCount(const std::string& text);

// The count of /sys/devices/system/cpu/possible; no value when it cannot be read or parsed.
std::optional<uint32_t> readPossibleCpuCount();

}  // namespace zelkora
}  // namespace com
