// The maps that are nearly full, as warnings that say what fills and how to make room.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/fill.h"

namespace zelk::cli {

// The maps above `percent` full, as warning lines.
std::vector<std::string> fillWarnings(const Fill& fill, uint64_t percent = 90);

}  // namespace zelk::cli
