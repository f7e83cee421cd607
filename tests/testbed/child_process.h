// Forked children: a scripted one that talks with the test through a socket pair, and runs of a
// test body or a program whose output is collected. Fork before starting any thread: a child must
// be single-threaded to enter a user namespace, and only async-signal-safe work belongs in a body.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zelk::testbed {

inline constexpr std::chrono::milliseconds kWait(5000);

// Killed and reaped if the test ends first.
class Child {
 public:
  explicit Child(const std::function<void(Child&)>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t pid() const { return pid_; }
  int fd() const { return fd_; }

  // In the child.
  void tell(int64_t value);
  void awaitGo();  // off the CPU

  // In the test: the next value told, or nothing after kWait.
  std::optional<int64_t> next();
  void go();
  // The exit status, -1 when the child is killed at `timeout` or dies of a signal; what it wrote
  // until then goes to `output`.
  int wait(std::chrono::milliseconds timeout = kWait, std::string* output = nullptr);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
};

struct ChildOptions {
  bool userNamespace = false;
  // The child is killed when it has not exited by then.
  std::chrono::milliseconds timeout{30000};
};

struct ChildResult {
  int status = -1;     // exit status; -1 when killed at the timeout or by a signal
  std::string output;  // everything the body wrote to its descriptor
};

// Exit status of a child whose user namespace could not be set up.
inline constexpr int kNoUserNamespace = 125;

// `body` gets the descriptor to write its output to and returns the child's exit status.
ChildResult runInChild(const std::function<int(int out)>& body, const ChildOptions& options = {});

// Runs the program at `path` with `args` in a child, its output and (unless not `withStderr`) its
// errors collected; `prepare` runs first in the child, and a false from it ends the child with 126.
ChildResult runProgram(const char* path, const std::vector<std::string>& args,
                       bool (*prepare)() = nullptr, bool withStderr = true);

// Writes all of `text` to `fd`.
void writeAll(int fd, const std::string& text);

}  // namespace zelk::testbed
