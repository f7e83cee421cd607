// What a loaded object holds of kernel memory, as the kernel accounts it (fdinfo's memlock).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::loader {

struct MapMemory {
  std::string name;
  uint64_t bytes;
};

// The memlock line of /proc/self/fdinfo/<fd>: bytes, or 0 when the kernel shows none.
uint64_t memlockBytes(int fd);

// "2.1 MiB", "640 KiB", "512 B".
std::string formatBytes(uint64_t bytes);

// "kernel memory 6.0 MiB (maps 5.9 MiB, most in a 2.1 MiB, b 1.6 MiB, c 0.5 MiB; programs
// 48 KiB)", naming the `named` biggest maps.
std::string describeKernelMemory(std::vector<MapMemory> maps, uint64_t programBytes,
                                 size_t named = 3);

}  // namespace zelk::loader
