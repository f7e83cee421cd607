// A program run beside the test, its output collected from a pipe while the test acts.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace zelk::testbed {

// The time until `deadline`, none once it has passed.
std::chrono::milliseconds timeLeft(std::chrono::steady_clock::time_point deadline);

// Ended with SIGTERM (then SIGKILL) when the test is done with it.
class Background {
 public:
  // Its errors go to the same pipe unless not `withStderr`.
  Background(const std::string& path, const std::vector<std::string>& args, bool withStderr = true);
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until the output holds `text`; false after `timeout` or when the program ended.
  bool waitFor(const std::string& text, std::chrono::milliseconds timeout);
  // Waits for the program to end by itself: its exit status, or -1 when it died of a signal or
  // had to be killed at `timeout`.
  int wait(std::chrono::milliseconds timeout);
  // SIGTERM, then as wait().
  int stop(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
  // What it has written so far.
  const std::string& output();

 private:
  void drain(std::chrono::milliseconds timeout);

  pid_t pid_ = -1;
  int fd_ = -1;
  std::string output_;
};

}  // namespace zelk::testbed
