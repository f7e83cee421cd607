// Where the library's log lines go while the tool runs: stderr, as "libzelkcpufreqtime: text".
#pragma once

namespace zelk::cli {

// Errors only, or every line with `verbose` (the tracking result, the pressure trigger, each
// pressure event, seeding warnings). Call before the first library call.
void routeLibraryLog(bool verbose);

}  // namespace zelk::cli
