#include "machine/sampled_tree.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "machine/environment.h"
#include "machine/frequency_bins.h"

namespace zelk::cli {
namespace {

std::string readTrimmed(const std::string& path) {
  std::string text;
  if (!android::base::ReadFileToString(path, &text)) return "";
  return android::base::Trim(text);
}

void appendFrequencies(const std::string& list, std::vector<uint64_t>* freqs) {
  for (const std::string& word : android::base::Split(list, " ")) {
    if (const std::optional<uint64_t> khz = parseKhz(word)) freqs->push_back(*khz);
  }
}

// The frequency of `freqs` (not empty) nearest the policy's real scaling_cur_freq, as that file
// writes it; the lowest when the real one cannot be read. The sampler writes its own at once.
std::string nearestCurrent(const RealPolicy& policy, std::vector<uint64_t> freqs) {
  std::sort(freqs.begin(), freqs.end());
  char text[32] = {};
  const ssize_t length = pread(policy.curFreq.get(), text, sizeof(text) - 1, 0);
  const std::optional<uint64_t> khz = length > 0 ? parseKhz(text) : std::nullopt;
  return std::to_string(freqs[khz ? nearestBin(freqs, *khz) - 1 : 0]) + "\n";
}

std::string joined(const std::vector<uint64_t>& khz) {
  std::string text;
  for (uint64_t f : khz) text += std::to_string(f) + " ";  // the kernel's format
  return text + "\n";
}

}  // namespace

std::vector<RealPolicy> readRealPolicies(bool sampleAll, std::string* error) {
  std::vector<RealPolicy> policies;
  for (const PolicyDir& dir : cpufreqPolicies()) {
    const std::string base = std::string(kCpufreqDir) + "/" + dir.name + "/";
    RealPolicy policy;
    policy.name = dir.name;
    policy.relatedCpus = dir.relatedCpus;
    policy.driver = readTrimmed(base + "scaling_driver");
    std::vector<uint64_t> table;
    appendFrequencies(readTrimmed(base + "scaling_available_frequencies"), &table);
    policy.hasTable = !table.empty();
    if (!policy.hasTable) {
      const auto minKhz = parseKhz(readTrimmed(base + "cpuinfo_min_freq"));
      const auto maxKhz = parseKhz(readTrimmed(base + "cpuinfo_max_freq"));
      if (minKhz && maxKhz) policy.bins = frequencyBins(*minKhz, *maxKhz);
      if (policy.bins.empty()) {
        *error = dir.name +
                 " has neither a frequency table nor a readable cpuinfo_min_freq and "
                 "cpuinfo_max_freq to make one from";
        return {};
      }
    }
    if (!policy.hasTable || sampleAll) {
      const std::string path = base + "scaling_cur_freq";
      policy.curFreq.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      if (policy.curFreq.get() < 0) {
        *error = "cannot open " + path + " to sample it: " + strerror(errno);
        return {};
      }
    }
    policies.push_back(std::move(policy));
  }
  return policies;
}

std::string mountSampledCpufreq(const std::vector<RealPolicy>& policies) {
  // What the tabled policies hold, read before the tmpfs hides it.
  struct File {
    std::string path;
    std::string content;
  };
  std::vector<File> files;
  for (const RealPolicy& policy : policies) {
    const std::string base = std::string(kCpufreqDir) + "/" + policy.name + "/";
    const bool sampled = policy.curFreq.get() >= 0;
    files.push_back({base + "related_cpus", policy.relatedCpus + "\n"});
    std::vector<uint64_t> freqs = policy.bins;
    if (policy.hasTable) {
      for (const char* name : {"scaling_available_frequencies", "scaling_boost_frequencies"}) {
        std::string content;
        if (!android::base::ReadFileToString(base + name, &content)) continue;
        files.push_back({base + name, content});
        appendFrequencies(content, &freqs);
      }
      std::string current;
      if (!sampled && android::base::ReadFileToString(base + "scaling_cur_freq", &current)) {
        files.push_back({base + "scaling_cur_freq", current});
      }
    } else {
      files.push_back({base + "scaling_available_frequencies", joined(policy.bins)});
    }
    if (sampled && !freqs.empty()) {
      files.push_back({base + "scaling_cur_freq", nearestCurrent(policy, std::move(freqs))});
    }
  }
  if (mount("tmpfs", kCpufreqDir, "tmpfs", 0, "mode=0755") != 0) {
    return std::string("mounting a tmpfs on ") + kCpufreqDir + ": " + strerror(errno);
  }
  for (const RealPolicy& policy : policies) {
    const std::string dir = std::string(kCpufreqDir) + "/" + policy.name;
    if (mkdir(dir.c_str(), 0755) != 0) return "creating " + dir + ": " + strerror(errno);
  }
  for (const File& file : files) {
    if (!android::base::WriteStringToFile(file.content, file.path)) {
      return "writing " + file.path + ": " + strerror(errno);
    }
  }
  return "";
}

}  // namespace zelk::cli
