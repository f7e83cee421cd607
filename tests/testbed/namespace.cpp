#include "namespace.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zelk::testbed {
namespace {

std::string failure(const char* what) { return std::string(what) + ": " + strerror(errno); }

}  // namespace

bool inCi() {
  const char* ci = getenv("CI");
  return ci != nullptr && strcmp(ci, "true") == 0;
}

std::string enterPrivateNamespace(const NamespaceOptions& options) {
  if (unshare(CLONE_NEWNS) != 0) return failure("unshare(CLONE_NEWNS)");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return failure("making / private");
  }
  if (mount("bpf", "/sys/fs/bpf", "bpf", 0, nullptr) != 0) return failure("mounting bpffs");
  if (mount("tmpfs", "/sys/devices/system/cpu/cpufreq", "tmpfs", 0, "mode=0755") != 0) {
    return failure("mounting tmpfs over cpufreq");
  }
  if (options.tracefs && mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr) != 0) {
    return failure("mounting tracefs");
  }
  return "";
}

void KernelTest::SetUp() {
  const std::string error = enterPrivateNamespace(namespaceOptions());
  if (!error.empty()) ZELK_SKIP_OR_FAIL("no private namespace for the test bed: " + error);
}

}  // namespace zelk::testbed
