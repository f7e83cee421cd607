// What the test process itself holds, read from /proc/self, and bounded waiting.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>

namespace zelk::testbed {

// Entries of /proc/self/fd, not counting the descriptor that lists them.
size_t openDescriptorCount();
// Entries of /proc/self/task: the threads of the process.
size_t threadCount();

// Polls `done` every few milliseconds until it is true, or false after `timeout`.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

// Waits until thread `tid` of this process sleeps (state S), at most `timeout`.
bool waitUntilSleeping(pid_t tid, std::chrono::milliseconds timeout);

}  // namespace zelk::testbed
