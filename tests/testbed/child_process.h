// Runs a test body in a forked child, optionally as root of a new user namespace, and collects
// what it writes. Fork before starting any thread: the child must be single-threaded to enter a
// user namespace.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace zelk::testbed {

struct ChildOptions {
  bool userNamespace = false;
  // The child is killed when it has not exited by then.
  std::chrono::milliseconds timeout{30000};
};

struct ChildResult {
  bool exited = false;  // false: killed at the timeout, or died of a signal
  int status = -1;      // exit status when exited
  std::string output;   // everything the body wrote to its descriptor
};

// Exit status of a child whose user namespace could not be set up.
inline constexpr int kNoUserNamespace = 125;

// `body` gets the descriptor to write its output to and returns the child's exit status.
ChildResult runInChild(const std::function<int(int out)>& body, const ChildOptions& options = {});

// Writes all of `text` to `fd`.
void writeAll(int fd, const std::string& text);

}  // namespace zelk::testbed
