#include "self_status.h"

#include <android-base/file.h>
#include <dirent.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace zelk::testbed {
namespace {

size_t countEntries(const char* path) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return 0;
  size_t count = 0;
  while (const struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

}  // namespace

size_t openDescriptorCount() { return countEntries("/proc/self/fd") - 1; }

size_t threadCount() { return countEntries("/proc/self/task"); }

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool waitUntilSleeping(pid_t tid, std::chrono::milliseconds timeout) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  return waitUntil(
      [&] {
        std::string stat;
        if (!android::base::ReadFileToString(path, &stat)) return false;
        // The state follows the command name, which is in parentheses.
        const size_t close = stat.rfind(')');
        return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S';
      },
      timeout);
}

}  // namespace zelk::testbed
