#include "machine/attached_programs.h"

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <dirent.h>

#include <cstdint>
#include <memory>
#include <set>

#include "core/decimal.h"
#include "object_pins.h"

namespace zelk::cli {
namespace {

std::set<__u32> pinnedProgramIds() {
  std::set<__u32> ids;
  for (const loader::ProgramPin& pin : loader::objectPins(loader::embeddedObject()).programs) {
    if (pin.category.empty()) continue;  // run on a CPU, never attached
    const android::base::unique_fd fd(bpf_obj_get(pin.path.c_str()));
    bpf_prog_info info = {};
    __u32 length = sizeof(info);
    if (fd.get() >= 0 && bpf_obj_get_info_by_fd(fd.get(), &info, &length) == 0) {
      ids.insert(info.id);
    }
  }
  return ids;
}

// Numeric entries of a /proc directory.
std::vector<int> numericEntries(const std::string& path) {
  std::vector<int> numbers;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
  if (!dir) return numbers;
  while (const dirent* entry = readdir(dir.get())) {
    uint32_t number;
    if (com::zelkora::parseDecimal(entry->d_name, &number, uint32_t{INT32_MAX})) {
      numbers.push_back(static_cast<int>(number));
    }
  }
  return numbers;
}

}  // namespace

std::vector<pid_t> pidsTracking() {
  const std::set<__u32> ids = pinnedProgramIds();
  std::set<pid_t> pids;
  if (ids.empty()) return {};
  for (const int pid : numericEntries("/proc")) {
    for (const int fd : numericEntries("/proc/" + std::to_string(pid) + "/fd")) {
      // Any descriptor but a perf event with a program fails here; that is the common case.
      char name[256];
      __u32 nameLength = sizeof(name), programId = 0, type = 0;
      __u64 offset = 0, address = 0;
      if (bpf_task_fd_query(pid, fd, 0, name, &nameLength, &programId, &type, &offset, &address) ==
              0 &&
          ids.count(programId) != 0) {
        pids.insert(pid);
        break;
      }
    }
  }
  return {pids.begin(), pids.end()};
}

}  // namespace zelk::cli
