#include "object_setup.h"

#include <android-base/errno_restorer.h>
#include <android-base/unique_fd.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kernel/config_maps.h"
#include "object_pins.h"

namespace zelk::exercise {
namespace {

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

namespace lib = com::zelkora;

// Opens a map's pin read-write and hands it to `write`, one of the library's writers; "" or what
// failed.
template <typename Write>
std::string writeMap(lib::MapId map, Write write) {
  const lib::MapInfo& info = lib::mapInfo(map);
  const android::base::unique_fd fd(bpf_obj_get(info.pinPath));
  if (fd.get() < 0) return failure(std::string("opening ") + info.pinPath);
  if (!write(fd.get())) return failure(std::string("writing ") + info.name);
  return "";
}

}  // namespace

Policy wholeMachinePolicy(const std::vector<uint32_t>& freqs, uint32_t currentIndex) {
  Policy policy{{}, freqs, currentIndex};
  const int cpus = libbpf_num_possible_cpus();
  for (int cpu = 0; cpu < cpus; ++cpu) policy.cpus.push_back(static_cast<uint32_t>(cpu));
  return policy;
}

std::string configure(const std::vector<Policy>& policies) {
  lib::PolicyLists relatedCpus, freqTable;
  for (const Policy& policy : policies) {
    relatedCpus.emplace_back(policy.cpus.begin(), policy.cpus.end());
    freqTable.emplace_back(policy.freqs.begin(), policy.freqs.end());
  }
  const int cpus = libbpf_num_possible_cpus();
  if (cpus <= 0) return "cannot read the number of possible CPUs";
  std::string error = writeMap(lib::MapId::CpuPolicy,
                               [&](int fd) { return lib::writeCpuPolicies(fd, relatedCpus); });
  if (error.empty()) {
    error = writeMap(lib::MapId::FreqToIdx,
                     [&](int fd) { return lib::writeFreqIndices(fd, freqTable); });
  }
  if (error.empty()) {
    error = writeMap(lib::MapId::CpuLastUpdate, [&](int fd) {
      return lib::writeZeroLastUpdate(fd, static_cast<uint32_t>(cpus));
    });
  }
  // Each policy's index as given, not read from sysfs: this machine may have no cpufreq.
  for (uint32_t i = 0; error.empty() && i < policies.size(); ++i) {
    error = setCurrentIndex(i, policies[i].currentIndex);
  }
  return error;
}

std::string setCurrentIndex(uint32_t policy, uint32_t index) {
  return writeMap(lib::MapId::PolicyFreqIdx,
                  [&](int fd) { return lib::writeCurrentFreqIndex(fd, policy, index); });
}

Attachment::~Attachment() { detach(); }

std::string Attachment::attach() {
  const loader::PinList pins = loader::objectPins(loader::embeddedObject());
  if (!pins.error.empty()) return pins.error;
  for (const loader::ProgramPin& program : pins.programs) {
    if (program.category.empty()) continue;  // run on a CPU, never attached
    const int fd = bpf_obj_get(program.path.c_str());
    if (fd < 0) return failure("opening " + program.path);
    const int link = bpf_attach_tracepoint(fd, program.category.c_str(), program.event.c_str());
    {
      android::base::ErrnoRestorer keepAttachErrno;
      close(fd);  // the perf event holds the program
    }
    if (link < 0) {
      return failure("attaching " + program.category + ":" + program.event);
    }
    links_.push_back(link);
  }
  return "";
}

void Attachment::detach() {
  for (const int link : links_) bpf_close_perf_event_fd(link);
  links_.clear();
}

}  // namespace zelk::exercise
