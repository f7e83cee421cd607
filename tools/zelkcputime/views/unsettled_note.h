// What the tool says, once, where the CPUs cannot be settled before a read.
#pragma once

#include <string>

namespace zelk::cli {

// The note for settling that failed with `error` (an errno), without a newline.
std::string unsettledNote(int error);

}  // namespace zelk::cli
