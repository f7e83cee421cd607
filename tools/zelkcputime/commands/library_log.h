// Where the library's log lines go while the tool runs: stderr, as "libzelkcpufreqtime: text".
#pragma once

#include <string>

namespace zelk::cli {

// Errors only, or every line with `verbose` (the tracking result, the pressure trigger, each
// pressure event, seeding warnings). Call before the first library call. Without `verbose`,
// expected conditions get one line in the tool's own words instead of the library's.
void routeLibraryLog(bool verbose);

// While a full-screen view owns the terminal, lines wait; releasing prints them in order. Without
// `withNotes`, the notes on expected conditions are dropped, then and later: a command that ends
// on its user's bad input says that one thing.
void holdLibraryLog();
void releaseLibraryLog(bool withNotes = true);

// A note of the tool's own, "zelkcputime: note: ...", in line with the library's: held as they are.
void tellNote(const std::string& line);

// The tool's line for a library line that reports an expected condition, or "" for a real error.
std::string expectedConditionText(const std::string& message);

}  // namespace zelk::cli
