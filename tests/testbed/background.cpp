#include "background.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace zelk::testbed {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

}  // namespace

milliseconds timeLeft(Clock::time_point deadline) {
  return std::max(milliseconds(0),
                  std::chrono::duration_cast<milliseconds>(deadline - Clock::now()));
}

Background::Background(const std::string& path, const std::vector<std::string>& args,
                       bool withStderr) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  // Built before the fork: the child only calls async-signal-safe functions.
  std::vector<char*> argv = {const_cast<char*>(path.c_str())};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    if (dup2(fds[1], 1) < 0 || (withStderr && dup2(fds[1], 2) < 0)) _exit(126);
    execv(path.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  fd_ = fds[0];
}

Background::~Background() {
  if (pid_ > 0) stop(milliseconds(5000));
  if (fd_ >= 0) close(fd_);
}

void Background::drain(milliseconds timeout) {
  pollfd p = {fd_, POLLIN, 0};
  if (fd_ < 0 || poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return;
  char buffer[4096];
  const ssize_t n = read(fd_, buffer, sizeof(buffer));
  if (n > 0) {
    output_.append(buffer, static_cast<size_t>(n));
  } else {
    close(fd_);  // the program ended
    fd_ = -1;
  }
}

bool Background::waitFor(const std::string& text, milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (output_.find(text) == std::string::npos) {
    if (fd_ < 0 || Clock::now() >= deadline) return false;
    drain(timeLeft(deadline));
  }
  return true;
}

const std::string& Background::output() {
  while (fd_ >= 0) {
    const size_t before = output_.size();
    drain(milliseconds(0));
    if (output_.size() == before) break;
  }
  return output_;
}

int Background::wait(milliseconds timeout) {
  if (pid_ <= 0) return -1;
  const auto deadline = Clock::now() + timeout;
  int status = 0;
  pid_t done = 0;
  while ((done = waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
    drain(milliseconds(20));
  }
  if (done == 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    status = -1;
  }
  pid_ = -1;
  output();
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Background::stop(milliseconds timeout) {
  if (pid_ > 0) kill(pid_, SIGTERM);
  return wait(timeout);
}

}  // namespace zelk::testbed
