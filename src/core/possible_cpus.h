// The kernel's possible CPUs, which size every per-CPU map value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace com {
namespace zelkora {

// The CPUs of a kernel CPU list such as "0-3,6\n" (0, 1, 2, 3, 6). No value for malformed text.
// The tool parses the lists of its namespaces with this too.
std::optional<std::vector<uint32_t>> parseCpuList(const std::string& text);
// Their count (5 above).
std::optional<uint32_t> parseCpuListCount(const std::string& text);

// The count of /sys/devices/system/cpu/possible; no value when it cannot be read or parsed.
std::optional<uint32_t> readPossibleCpuCount();

}  // namespace zelkora
}  // namespace com
