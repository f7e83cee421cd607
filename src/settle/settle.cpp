// Settling runs the object's settle program on each CPU; the kernel side says why that is safe
// beside the other programs.
#include <android-base/unique_fd.h>

#include <cerrno>
#include <numeric>
#include <optional>
#include <string_view>

#include "core/catalogue.h"
#include "core/mutex.h"
#include "core/possible_cpus.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime_settle.h"

namespace com {
namespace zelkora {
namespace {

Mutex gSettleMutex;
// Opened at the first call that finds the pin, then kept, as the maps' descriptors are.
android::base::unique_fd gSettleFd GUARDED_BY(gSettleMutex);
std::vector<uint32_t> gPossibleCpus GUARDED_BY(gSettleMutex);

const char* settlePinPath() {
  for (const RunProgramInfo& program : kRunPrograms) {
    if (std::string_view(program.name) == "settle_cpu") return program.pinPath;
  }
  return nullptr;
}

int settleProgram() REQUIRES(gSettleMutex) {
  if (gSettleFd.get() < 0) {
    const char* path = settlePinPath();
    if (path == nullptr) {
      errno = ENOENT;
      return -1;
    }
    gSettleFd.reset(bpfObjGet(path, 0));
  }
  return gSettleFd.get();
}

bool settle(int fd, const std::vector<uint32_t>& cpus) {
  for (uint32_t cpu : cpus) {
    // Offline: nothing runs there, and its slice restarts when it comes back, from idle.
    if (progTestRunOnCpu(fd, cpu) != 0 && errno != ENXIO) return false;
  }
  return true;
}

}  // namespace

bool settleCpuTimes() {
  MutexLock lock(gSettleMutex);
  const int fd = settleProgram();
  if (fd < 0) return false;
  if (gPossibleCpus.empty()) {
    const std::optional<uint32_t> count = readPossibleCpuCount();
    if (!count || *count == 0) {
      errno = ENODATA;
      return false;
    }
    gPossibleCpus.resize(*count);
    std::iota(gPossibleCpus.begin(), gPossibleCpus.end(), 0u);
  }
  return settle(fd, gPossibleCpus);
}

bool settleCpuTimes(const std::vector<uint32_t>& cpus) {
  MutexLock lock(gSettleMutex);
  const int fd = settleProgram();
  return fd >= 0 && settle(fd, cpus);
}

}  // namespace zelkora
}  // namespace com
