#include "object_setup.h"

#include <android-base/errno_restorer.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "object_pins.h"

namespace zelk::exercise {
namespace {

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

using com::zelkora::MapId;

// Opens a map pin, or returns -1 with the reason in `error`.
int openMap(MapId map, std::string* error) {
  const char* path = com::zelkora::mapInfo(map).pinPath;
  const int fd = bpf_obj_get(path);
  if (fd < 0) *error = failure(std::string("opening ") + path);
  return fd;
}

std::string updateAll(MapId map, const std::vector<std::pair<const void*, const void*>>& kv) {
  std::string error;
  const int fd = openMap(map, &error);
  if (fd < 0) return error;
  for (const auto& [key, value] : kv) {
    if (bpf_map_update_elem(fd, key, value, BPF_ANY) != 0) {
      error = failure(std::string("writing ") + com::zelkora::mapInfo(map).name);
      break;
    }
  }
  close(fd);
  return error;
}

struct FreqKey {
  uint32_t policy;
  uint32_t freq;
};

}  // namespace

Policy wholeMachinePolicy(const std::vector<uint32_t>& freqs, uint32_t currentIndex) {
  Policy policy{{}, freqs, currentIndex};
  const int cpus = libbpf_num_possible_cpus();
  for (int cpu = 0; cpu < cpus; ++cpu) policy.cpus.push_back(static_cast<uint32_t>(cpu));
  return policy;
}

std::string configure(const std::vector<Policy>& policies) {
  std::vector<uint32_t> ordinals(policies.size());
  std::vector<std::vector<uint32_t>> indexes(policies.size());
  std::vector<std::vector<FreqKey>> freqKeys(policies.size());
  std::vector<std::pair<const void*, const void*>> cpuPolicy, freqToIdx, currentIdx;
  for (uint32_t i = 0; i < policies.size(); ++i) {
    ordinals[i] = i;
    for (const uint32_t& cpu : policies[i].cpus) cpuPolicy.emplace_back(&cpu, &ordinals[i]);
    for (uint32_t j = 0; j < policies[i].freqs.size(); ++j) {
      indexes[i].push_back(j + 1);
      freqKeys[i].push_back({i, policies[i].freqs[j]});
    }
    for (size_t j = 0; j < freqKeys[i].size(); ++j) {
      freqToIdx.emplace_back(&freqKeys[i][j], &indexes[i][j]);
    }
    currentIdx.emplace_back(&ordinals[i], &policies[i].currentIndex);
  }
  std::string error = updateAll(MapId::CpuPolicy, cpuPolicy);
  if (error.empty()) error = updateAll(MapId::FreqToIdx, freqToIdx);
  const uint32_t zeroKey = 0;
  const std::vector<uint64_t> zeros(static_cast<size_t>(libbpf_num_possible_cpus()), 0);
  if (error.empty()) error = updateAll(MapId::CpuLastUpdate, {{&zeroKey, zeros.data()}});
  if (error.empty()) error = updateAll(MapId::PolicyFreqIdx, currentIdx);
  return error;
}

std::string setCurrentIndex(uint32_t policy, uint32_t index) {
  return updateAll(MapId::PolicyFreqIdx, {{&policy, &index}});
}

Attachment::~Attachment() { detach(); }

std::string Attachment::attach() {
  const loader::PinList pins = loader::objectPins(loader::embeddedObject());
  if (!pins.error.empty()) return pins.error;
  for (const loader::ProgramPin& program : pins.programs) {
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
