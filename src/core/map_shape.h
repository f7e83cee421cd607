// What the library assumes about each map it opens. The kernel copies a map's own key and value
// sizes (times the CPU count for per-CPU maps), so a map of another shape would make the kernel
// write outside the library's buffers.
#pragma once

#include <cstdint>
#include <string>

namespace com {
namespace zelkora {

struct MapShape {
  uint32_t keySize;
  uint32_t valueSize;
  bool perCpu;
};

// "" when `fd` is a BPF map of this shape; otherwise what differs, for a log message.
std::string describeMapMismatch(int fd, const MapShape& expected);

}  // namespace zelkora
}  // namespace com
