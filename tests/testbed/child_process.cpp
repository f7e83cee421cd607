#include "child_process.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zelk::testbed {
namespace {

// Root inside the namespace is the caller's own uid outside it, the one mapping that needs no
// privilege in the parent namespace.
bool enterUserNamespace(int out) {
  const std::string uid = std::to_string(getuid());
  const std::string gid = std::to_string(getgid());
  if (unshare(CLONE_NEWUSER) != 0) {
    writeAll(out, std::string("unshare(CLONE_NEWUSER): ") + strerror(errno) + "\n");
    return false;
  }
  if (!android::base::WriteStringToFile("deny", "/proc/self/setgroups") ||
      !android::base::WriteStringToFile("0 " + uid + " 1", "/proc/self/uid_map") ||
      !android::base::WriteStringToFile("0 " + gid + " 1", "/proc/self/gid_map")) {
    writeAll(out, std::string("writing the id maps: ") + strerror(errno) + "\n");
    return false;
  }
  return true;
}

}  // namespace

void writeAll(int fd, const std::string& text) {
  android::base::WriteFully(fd, text.data(), text.size());
}

ChildResult runInChild(const std::function<int(int out)>& body, const ChildOptions& options) {
  ChildResult result;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    result.output = std::string("pipe2: ") + strerror(errno);
    return result;
  }
  android::base::unique_fd readEnd(fds[0]);
  android::base::unique_fd writeEnd(fds[1]);
  const pid_t child = fork();
  if (child < 0) {
    result.output = std::string("fork: ") + strerror(errno);
    return result;
  }
  if (child == 0) {
    readEnd.reset();
    if (options.userNamespace && !enterUserNamespace(writeEnd.get())) _exit(kNoUserNamespace);
    _exit(body(writeEnd.get()));
  }
  writeEnd.reset();

  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  char buffer[4096];
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    struct pollfd readable = {readEnd.get(), POLLIN, 0};
    const int ready = poll(&readable, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    const ssize_t n = read(readEnd.get(), buffer, sizeof(buffer));
    if (n <= 0) break;  // end of file: the child (and every thread of it) is gone
    result.output.append(buffer, static_cast<size_t>(n));
  }
  // The pipe closes while the child exits, a moment before it can be reaped.
  int status = 0;
  pid_t reaped;
  while ((reaped = waitpid(child, &status, WNOHANG)) == 0 &&
         std::chrono::steady_clock::now() < deadline) {
    usleep(1000);
  }
  if (reaped != child) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return result;
  }
  result.exited = WIFEXITED(status);
  result.status = result.exited ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace zelk::testbed
