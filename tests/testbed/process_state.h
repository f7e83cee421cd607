// What the test process holds: open descriptors, and the state of its threads.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

namespace zelk::testbed {

// Entries of /proc/self/fd (including the one used to list it).
size_t openFdCount();

// Waits until thread `tid` of this process sleeps (state S), at most `timeout`.
bool waitUntilSleeping(pid_t tid, std::chrono::milliseconds timeout);

}  // namespace zelk::testbed
