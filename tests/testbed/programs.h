// Real tracepoint programs, pinned where the kernel object pins its own. Each is the smallest
// program the verifier accepts (r0 = 0; exit): attaching it is real, running it changes nothing.
#pragma once

#include <string>
#include <vector>

namespace zelk::testbed {

struct TracepointName {
  std::string category;
  std::string event;
};

// The kernel object's six tracepoints, in its catalogue's order, in which the library checks and
// attaches them (the tests spell that order out where they check it).
const std::vector<TracepointName>& objectTracepoints();

std::string programPinPath(const TracepointName& tp);

// Loads one such program; its descriptor, or -1 with errno.
int loadTrivialProgram(const char* name);
// Loads and pins one program, or all six; "" on success, else what failed.
std::string pinProgram(const TracepointName& tp);
std::string pinPrograms();
void unpinProgram(const TracepointName& tp);

// Attaches the pinned program itself, for the life of the process; false when the kernel refuses,
// as it does for a program already attached to that tracepoint.
bool attachPinnedProgram(const TracepointName& tp);

}  // namespace zelk::testbed
