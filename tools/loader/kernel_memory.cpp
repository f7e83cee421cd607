#include "kernel_memory.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>

#include "core/decimal.h"

namespace zelk::loader {

uint64_t memlockBytes(int fd) {
  std::ifstream file("/proc/self/fdinfo/" + std::to_string(fd));
  static const std::string kKey = "memlock:";
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, kKey.size(), kKey) != 0) continue;
    const size_t digits = line.find_first_not_of(" \t", kKey.size());
    uint64_t bytes = 0;
    if (digits != std::string::npos &&
        com::zelkora::parseDecimal<uint64_t>(line.substr(digits), &bytes, UINT64_MAX)) {
      return bytes;
    }
    return 0;
  }
  return 0;
}

std::string formatBytes(uint64_t bytes) {
  char text[32];
  const uint64_t kib = (bytes + 512) / 1024;
  if (bytes < 1024) {
    snprintf(text, sizeof(text), "%" PRIu64 " B", bytes);
  } else if (kib < 1024) {
    snprintf(text, sizeof(text), "%" PRIu64 " KiB", kib);
  } else {
    snprintf(text, sizeof(text), "%.1f MiB", static_cast<double>(bytes) / 1048576.0);
  }
  return text;
}

std::string describeKernelMemory(std::vector<MapMemory> maps, uint64_t programBytes, size_t named) {
  uint64_t mapBytes = 0;
  for (const MapMemory& map : maps) mapBytes += map.bytes;
  // Biggest first; equal sizes in name order, so that the line is the same on every load.
  std::sort(maps.begin(), maps.end(), [](const MapMemory& a, const MapMemory& b) {
    return a.bytes != b.bytes ? a.bytes > b.bytes : a.name < b.name;
  });
  std::string text =
      "kernel memory " + formatBytes(mapBytes + programBytes) + " (maps " + formatBytes(mapBytes);
  for (size_t i = 0; i < std::min(named, maps.size()); ++i) {
    text += (i == 0 ? ", most in " : ", ") + maps[i].name + " " + formatBytes(maps[i].bytes);
  }
  return text + "; programs " + formatBytes(programBytes) + ")";
}

}  // namespace zelk::loader
