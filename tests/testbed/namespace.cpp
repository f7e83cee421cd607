#include "namespace.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "maps.h"

namespace zelk::testbed {
namespace {

std::string failure(const char* what) { return std::string(what) + ": " + strerror(errno); }

std::string enterPrivateNetwork() {
  if (unshare(CLONE_NEWNET) != 0) return failure("unshare(CLONE_NEWNET)");
  const android::base::unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  if (fd.get() < 0 || ioctl(fd.get(), SIOCGIFFLAGS, &request) != 0) return failure("reading lo");
  request.ifr_flags |= IFF_UP;
  if (ioctl(fd.get(), SIOCSIFFLAGS, &request) != 0) return failure("bringing lo up");
  return "";
}

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
  if (options.network) return enterPrivateNetwork();
  return "";
}

void KernelTest::SetUp() {
  const std::string error = enterPrivateNamespace(namespaceOptions());
  if (!error.empty()) ZELK_SKIP_OR_FAIL("no private namespace for the test bed: " + error);
}

std::string kernelList(const std::vector<uint64_t>& numbers) {
  std::string text;
  for (uint64_t n : numbers) text += std::to_string(n) + " ";
  return text + "\n";
}

void writeCpufreqFile(const std::string& relPath, const std::string& content) {
  const std::string path = std::string(kCpufreqDir) + "/" + relPath;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  if (!android::base::WriteStringToFile(content, path)) {
    ADD_FAILURE() << "cannot write " << path << ": " << strerror(errno);
  }
}

void addPolicy(const std::string& name, const std::vector<uint64_t>& freqs,
               const std::vector<uint64_t>& cpus) {
  writeCpufreqFile(name + "/scaling_available_frequencies", kernelList(freqs));
  writeCpufreqFile(name + "/related_cpus", kernelList(cpus));
  if (!freqs.empty()) {
    writeCpufreqFile(name + "/scaling_cur_freq", std::to_string(freqs.front()) + "\n");
  }
}

namespace {

std::vector<uint64_t> machineCpus() {
  std::vector<uint64_t> cpus;
  for (uint32_t cpu = 0; cpu < possibleCpus(); ++cpu) cpus.push_back(cpu);
  return cpus;
}

}  // namespace

void addMachinePolicy(const std::vector<uint64_t>& freqs) {
  addPolicy("policy0", freqs, machineCpus());
}

void addTablelessMachinePolicy(const std::string& driver, uint64_t minKhz, uint64_t maxKhz,
                               uint64_t currentKhz) {
  writeCpufreqFile("policy0/related_cpus", kernelList(machineCpus()));
  writeCpufreqFile("policy0/cpuinfo_min_freq", std::to_string(minKhz) + "\n");
  writeCpufreqFile("policy0/cpuinfo_max_freq", std::to_string(maxKhz) + "\n");
  writeCpufreqFile("policy0/scaling_driver", driver + "\n");
  writeCpufreqFile("policy0/scaling_cur_freq", std::to_string(currentKhz) + "\n");
}

}  // namespace zelk::testbed
