#include "machine/frequency_sampler.h"

#include <bpf/bpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "core/catalogue.h"
#include "kernel/config_maps.h"
#include "machine/frequency_bins.h"
#include "zelkcpufreqtime_settle.h"

namespace zelk::cli {

namespace lib = com::zelkora;

FrequencySampler::FrequencySampler(std::vector<SampledPolicy> policies,
                                   std::chrono::milliseconds period)
    : policies_(std::move(policies)), period_(period), written_(policies_.size(), 0) {}

FrequencySampler::~FrequencySampler() { stop(); }

std::string FrequencySampler::start() {
  const std::string path = lib::mapInfo(lib::MapId::PolicyFreqIdx).pinPath;
  map_.reset(bpf_obj_get(path.c_str()));
  if (map_.get() < 0) return "cannot open " + path + ": " + strerror(errno);
  if (std::string error = silenceFrequencyEvents(); !error.empty()) return error;
  {
    com::zelkora::MutexLock lock(mutex_);
    sampleOnce();  // at once, so that counting starts at the right frequency
  }
  thread_ = std::thread([this] { run(); });
  return "";
}

std::string FrequencySampler::silenceFrequencyEvents() {
  const std::string path = lib::mapInfo(lib::MapId::FreqToIdx).pinPath;
  const android::base::unique_fd map(bpf_obj_get(path.c_str()));
  if (map.get() < 0) return "cannot open " + path + ": " + strerror(errno);
  for (const SampledPolicy& policy : policies_) {
    if (!lib::deleteFreqIndices(map.get(), policy.ordinal, policy.freqs)) {
      return "cannot take " + policy.name + "'s frequencies out of " + path + ": " +
             strerror(errno);
    }
  }
  return "";
}

SamplerStats FrequencySampler::stop() {
  {
    com::zelkora::MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  com::zelkora::MutexLock lock(mutex_);
  return stats_;
}

void FrequencySampler::run() {
  com::zelkora::MutexLock lock(mutex_);
  auto next = std::chrono::steady_clock::now() + period_;
  for (;;) {
    while (!stopping_ && wake_.wait_until(mutex_, next) != std::cv_status::timeout) {
    }
    if (stopping_) break;
    ++stats_.wakeups;
    sampleOnce();
    // On a fixed grid, so that a slow read does not stretch the period.
    next += period_;
    const auto now = std::chrono::steady_clock::now();
    if (next < now) next = now + period_;
  }
  timespec cpu;
  if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu) == 0) {
    stats_.cpuNs = static_cast<uint64_t>(cpu.tv_sec) * 1000000000 + cpu.tv_nsec;
  }
}

void FrequencySampler::sampleOnce() {
  for (size_t i = 0; i < policies_.size(); ++i) {
    const SampledPolicy& policy = policies_[i];
    char text[32];
    const ssize_t length = pread(policy.curFreq.get(), text, sizeof(text) - 1, 0);
    const std::optional<uint64_t> khz =
        length > 0 ? parseKhz(std::string(text, static_cast<size_t>(length))) : std::nullopt;
    if (!khz || policy.freqs.empty()) {
      ++stats_.skipped;  // the last index stays in force
      continue;
    }
    ++stats_.samples;
    const uint32_t index = nearestBin(policy.freqs, *khz);
    // Without settling (an older kernel), the slices running now count at the new frequency, as
    // they did before settling existed; the snapshots say so.
    if (index != written_[i] && com::zelkora::settleCpuTimes(policy.cpus)) {
      ++stats_.settles;
    }
    if (lib::writeCurrentFreqIndex(map_.get(), policy.ordinal, index)) {
      ++stats_.writes;
      written_[i] = index;
    }
  }
}

}  // namespace zelk::cli
