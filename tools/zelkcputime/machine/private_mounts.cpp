#include "machine/private_mounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "machine/environment.h"
#include "object_pins.h"

namespace zelk::cli {
namespace {

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

bool exists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

}  // namespace

std::string enterPrivateMounts() {
  if (unshare(CLONE_NEWNS) != 0) return failure("unshare(CLONE_NEWNS)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return failure("making the mounts private");
  }
  // A fresh bpffs even when the machine has one: the demo's pins must not meet its pins.
  if (mount("bpf", loader::kBpffsDir, "bpf", 0, "mode=0700") != 0) {
    return failure(std::string("mounting bpffs on ") + loader::kBpffsDir);
  }
  // The library attaches through tracefs events, found at either place.
  if (!exists("/sys/kernel/tracing/events") && !exists("/sys/kernel/debug/tracing/events") &&
      mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr) != 0) {
    return failure("mounting tracefs on /sys/kernel/tracing");
  }
  return "";
}

std::string mountSyntheticCpufreq(uint64_t khz, const std::vector<uint32_t>& cpus) {
  if (mount("tmpfs", kCpufreqDir, "tmpfs", 0, "mode=0755") != 0) {
    return failure(std::string("mounting a tmpfs on ") + kCpufreqDir);
  }
  return writeSyntheticPolicy(kCpufreqDir, khz, cpus);
}

}  // namespace zelk::cli
