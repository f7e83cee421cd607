// Number files of sysfs: unsigned numbers separated by spaces and newlines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace com {
namespace zelkora {

// Parses the text of a number file. Each token is decimal, or hexadecimal with 0x; a leading 0
// alone is decimal. No value when any token is not such a number or exceeds 32 bits.
std::optional<std::vector<uint64_t>> parseNumbers(const std::string& text);

// Reads `path` (not following a final symbolic link) and parses it; no value if unreadable.
std::optional<std::vector<uint64_t>> readNumbersFromFile(const std::string& path);

}  // namespace zelkora
}  // namespace com
