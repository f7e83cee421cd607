#include "child_process.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "self_status.h"

namespace zelk::testbed {
namespace {

// Root inside the namespace is the caller's own uid outside it, the one mapping that needs no
// privilege in the parent namespace.
bool enterUserNamespace(int out) {
  const std::string uid = "0 " + std::to_string(getuid()) + " 1";
  const std::string gid = "0 " + std::to_string(getgid()) + " 1";
  if (unshare(CLONE_NEWUSER) == 0 &&
      android::base::WriteStringToFile("deny", "/proc/self/setgroups") &&
      android::base::WriteStringToFile(uid, "/proc/self/uid_map") &&
      android::base::WriteStringToFile(gid, "/proc/self/gid_map")) {
    return true;
  }
  writeAll(out, std::string("entering a user namespace: ") + strerror(errno) + "\n");
  return false;
}

}  // namespace

void writeAll(int fd, const std::string& text) {
  android::base::WriteFully(fd, text.data(), text.size());
}

Child::Child(const std::function<void(Child&)>& body) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
  pid_ = fork();
  fd_ = fds[pid_ == 0 ? 1 : 0];
  close(fds[pid_ == 0 ? 0 : 1]);
  if (pid_ == 0) {
    body(*this);
    _exit(0);
  }
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (fd_ >= 0) close(fd_);
}

void Child::tell(int64_t value) {
  if (write(fd_, &value, sizeof(value)) != sizeof(value)) _exit(120);
}

void Child::awaitGo() {
  char byte;
  if (read(fd_, &byte, 1) != 1) _exit(121);
}

std::optional<int64_t> Child::next() {
  pollfd readable{fd_, POLLIN, 0};
  int64_t value;
  if (poll(&readable, 1, static_cast<int>(kWait.count())) != 1) return std::nullopt;
  if (read(fd_, &value, sizeof(value)) != sizeof(value)) return std::nullopt;
  return value;
}

void Child::go() {
  if (write(fd_, "g", 1) != 1) perror("telling the child to go");
}

int Child::wait(std::chrono::milliseconds timeout, std::string* output) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const auto left = [&] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                 std::chrono::steady_clock::now());
  };
  char buffer[4096];
  while (output != nullptr && left().count() > 0) {
    pollfd readable = {fd_, POLLIN, 0};
    const int ready = poll(&readable, 1, static_cast<int>(left().count()));
    if (ready < 0 && errno == EINTR) continue;
    const ssize_t n = ready > 0 ? read(fd_, buffer, sizeof(buffer)) : 0;
    if (n <= 0) break;  // end of file: the child (and every thread of it) is gone
    output->append(buffer, static_cast<size_t>(n));
  }
  // The socket closes while the child exits, a moment before it can be reaped.
  int status = -1;
  if (!waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, left())) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ChildResult runInChild(const std::function<int(int out)>& body, const ChildOptions& options) {
  Child child([&](Child& self) {
    if (options.userNamespace && !enterUserNamespace(self.fd())) _exit(kNoUserNamespace);
    _exit(body(self.fd()));
  });
  ChildResult result;
  result.status = child.wait(options.timeout, &result.output);
  return result;
}

ChildResult runProgram(const char* path, const std::vector<std::string>& args, bool (*prepare)(),
                       bool withStderr) {
  return runInChild([&](int out) {
    const int err = withStderr ? out : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if ((prepare && !prepare()) || dup2(out, 1) < 0 || dup2(err, 2) < 0) return 126;
    std::vector<char*> argv = {const_cast<char*>(path)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(path, argv.data());
    return 127;
  });
}

}  // namespace zelk::testbed
