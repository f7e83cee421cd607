// Resolving cgroup ids: a cgroup's id is its directory's inode number, which name_to_handle_at
// gives as the directory's 8-byte handle. The mount is walked when an id is not known, and the
// paths are kept, so that a removed cgroup keeps the path it had.
#include "cgroup/cgroup_paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

#include "core/mutex.h"
#include "zelkcpufreqtime_cgroups.h"

namespace com {
namespace zelkora {
namespace {

Mutex gPathsMutex;
std::unordered_map<uint64_t, std::string> gPaths GUARDED_BY(gPathsMutex);
// Found by the last walk: the others' cgroups are gone.
std::unordered_set<uint64_t> gPresent GUARDED_BY(gPathsMutex);
// Ids that a walk did not find. A task runs in a cgroup only once its directory exists, so a walk
// after the id was read finds it unless it is gone, and an id is never reused: no later walk can.
std::unordered_set<uint64_t> gMissed GUARDED_BY(gPathsMutex);

// mountinfo escapes spaces, tabs, newlines and backslashes as \ooo.
std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

bool cgroupIdOf(int dirFd, const char* path, uint64_t* id) {
  struct {
    file_handle handle;
    unsigned char bytes[sizeof(uint64_t)];
  } buffer{};
  buffer.handle.handle_bytes = sizeof(uint64_t);
  int mountId = 0;
  if (name_to_handle_at(dirFd, path, &buffer.handle, &mountId, 0) != 0) return false;
  if (buffer.handle.handle_bytes != sizeof(uint64_t)) {
    errno = EINVAL;
    return false;
  }
  memcpy(id, buffer.handle.f_handle, sizeof(uint64_t));
  return true;
}

// Every directory under `mount`, with its path relative to the mount.
void walk(const std::string& mount, std::unordered_map<uint64_t, std::string>* found) {
  uint64_t rootId = 0;
  if (!cgroupIdOf(AT_FDCWD, mount.c_str(), &rootId)) return;
  (*found)[rootId] = "/";
  std::vector<std::string> pending = {""};
  while (!pending.empty()) {
    const std::string relative = std::move(pending.back());
    pending.pop_back();
    DIR* dir = opendir((mount + relative).c_str());
    if (dir == nullptr) continue;  // removed meanwhile
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_type != DT_DIR || strcmp(entry->d_name, ".") == 0 ||
          strcmp(entry->d_name, "..") == 0) {
        continue;
      }
      uint64_t id = 0;
      if (!cgroupIdOf(dirfd(dir), entry->d_name, &id)) continue;
      std::string child = relative + "/" + entry->d_name;
      (*found)[id] = child;
      pending.push_back(std::move(child));
    }
    closedir(dir);
  }
}

// Walks the mount into the cache. REQUIRES the caller to hold gPathsMutex.
void refresh() REQUIRES(gPathsMutex) {
  std::unordered_map<uint64_t, std::string> found;
  const std::string mount = getCgroupV2Mount();
  if (!mount.empty()) walk(mount, &found);
  gPresent.clear();
  for (auto& [id, path] : found) {
    gPresent.insert(id);
    gPaths[id] = std::move(path);  // a renamed cgroup takes its new path
  }
}

std::optional<std::string> known(uint64_t id) REQUIRES(gPathsMutex) {
  if (id == kRootCgroupId) return "/";
  const auto it = gPaths.find(id);
  if (it == gPaths.end()) return std::nullopt;
  return it->second;
}

}  // namespace

std::string getCgroupV2Mount() {
  std::ifstream mountinfo("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mountinfo, line)) {
    // id parent major:minor root mount-point options [optional...] - type source super-options
    const size_t separator = line.find(" - ");
    if (separator == std::string::npos) continue;
    std::istringstream tail(line.substr(separator + 3));
    std::string type;
    if (!(tail >> type) || type != "cgroup2") continue;
    std::istringstream head(line.substr(0, separator));
    std::string field, mountPoint;
    for (int i = 0; i < 5 && head >> field; ++i) mountPoint = field;
    return unescapeMountField(mountPoint);
  }
  return "";
}

std::optional<std::string> getCgroupPath(uint64_t id) { return getCgroupPaths({id}).front(); }

std::vector<std::optional<std::string>> getCgroupPaths(const std::vector<uint64_t>& ids) {
  MutexLock lock(gPathsMutex);
  bool walked = false;
  std::vector<std::optional<std::string>> paths;
  paths.reserve(ids.size());
  for (const uint64_t id : ids) {
    std::optional<std::string> path = known(id);
    if (!path && !walked && gMissed.count(id) == 0 && id != kOverflowCgroupId) {
      refresh();
      walked = true;
      path = known(id);
    }
    if (!path && walked) gMissed.insert(id);
    paths.push_back(std::move(path));
  }
  if (walked && ids.size() > 1) {
    // Removed cgroups that the caller no longer asks about: their time was cleared.
    const std::unordered_set<uint64_t> asked(ids.begin(), ids.end());
    for (auto it = gPaths.begin(); it != gPaths.end();) {
      it = gPresent.count(it->first) == 0 && asked.count(it->first) == 0 ? gPaths.erase(it)
                                                                         : std::next(it);
    }
    for (auto it = gMissed.begin(); it != gMissed.end();) {
      it = asked.count(*it) == 0 ? gMissed.erase(it) : std::next(it);
    }
  }
  return paths;
}

std::optional<uint64_t> getCgroupId(const std::string& path) {
  const std::string mount = getCgroupV2Mount();
  if (mount.empty()) {
    errno = ENOENT;
    return std::nullopt;
  }
  const bool absolute = path.compare(0, mount.size(), mount) == 0 &&
                        (path.size() == mount.size() || path[mount.size()] == '/');
  const std::string full =
      absolute ? path : mount + (path.empty() || path[0] != '/' ? "/" : "") + path;
  uint64_t id = 0;
  if (!cgroupIdOf(AT_FDCWD, full.c_str(), &id)) return std::nullopt;
  return id;
}

void forgetRemovedCgroups() {
  MutexLock lock(gPathsMutex);
  for (auto it = gPaths.begin(); it != gPaths.end();) {
    it = gPresent.count(it->first) == 0 ? gPaths.erase(it) : std::next(it);
  }
  gMissed.clear();
}

}  // namespace zelkora
}  // namespace com
