#include "process_state.h"

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <dirent.h>

#include <string>
#include <thread>

namespace zelk::testbed {

size_t openFdCount() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return 0;
  size_t count = 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

bool waitUntilSleeping(pid_t tid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const std::string path = android::base::StringPrintf("/proc/self/task/%d/stat", tid);
  while (std::chrono::steady_clock::now() < deadline) {
    std::string stat;
    if (android::base::ReadFileToString(path, &stat)) {
      // The state follows the command name, which is in parentheses.
      const size_t close = stat.rfind(')');
      if (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S') {
        return true;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

}  // namespace zelk::testbed
