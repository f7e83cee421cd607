// The demo's progress line while it samples.
#pragma once

#include <cstdint>
#include <string>

namespace zelk::cli {

// "[##########..........]  2.5/5 s, 3.141 s of CPU time counted": a bar of `width` characters
// filled to elapsed/total, without a newline.
std::string progressLine(uint64_t elapsedMs, uint64_t totalMs, uint64_t countedNs,
                         size_t width = 30);

}  // namespace zelk::cli
