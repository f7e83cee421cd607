// What the library assumes about each map it opens. The kernel copies a map's own key and value
// sizes (times the CPU count for per-CPU maps), so a map of another shape would make the kernel
// write outside the library's buffers.
#pragma once

#include <cstdint>
#include <string>

#include "core/catalogue.h"

namespace com {
namespace zelkora {

struct MapShape {
  uint32_t keySize;
  uint32_t valueSize;
  bool perCpu;
};

// The shape that the catalogue gives a map.
constexpr MapShape mapShape(const MapInfo& info) {
  return {info.keySize, info.valueSize, info.perCpu};
}

// "" when `fd` is a BPF map of this shape; otherwise what differs, for a log message.
std::string describeMapMismatch(int fd, const MapShape& expected);

}  // namespace zelkora
}  // namespace com
