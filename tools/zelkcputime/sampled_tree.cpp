#include "sampled_tree.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "environment.h"
#include "frequency_bins.h"

namespace zelk::cli {
namespace {

std::string readTrimmed(const std::string& path) {
  std::string text;
  if (!android::base::ReadFileToString(path, &text)) return "";
  return android::base::Trim(text);
}

bool hasFrequency(const std::string& list) {
  for (const std::string& word : android::base::Split(list, " ")) {
    if (parseKhz(word)) return true;
  }
  return false;
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
    policy.hasTable = hasFrequency(readTrimmed(base + "scaling_available_frequencies"));
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

std::string mountBinnedCpufreq(const std::vector<RealPolicy>& policies) {
  // What the tabled policies hold, read before the tmpfs hides it.
  struct File {
    std::string path;
    std::string content;
  };
  std::vector<File> files;
  for (const RealPolicy& policy : policies) {
    const std::string base = std::string(kCpufreqDir) + "/" + policy.name + "/";
    files.push_back({base + "related_cpus", policy.relatedCpus + "\n"});
    if (policy.hasTable) {
      for (const char* name :
           {"scaling_available_frequencies", "scaling_boost_frequencies", "scaling_cur_freq"}) {
        std::string content;
        if (android::base::ReadFileToString(base + name, &content)) {
          files.push_back({base + name, content});
        }
      }
      continue;
    }
    char text[32] = {};
    const ssize_t length = pread(policy.curFreq.get(), text, sizeof(text) - 1, 0);
    const auto khz = length > 0 ? parseKhz(text) : std::nullopt;
    const uint64_t current = policy.bins[khz ? nearestBin(policy.bins, *khz) - 1 : 0];
    files.push_back({base + "scaling_available_frequencies", joined(policy.bins)});
    files.push_back({base + "scaling_cur_freq", std::to_string(current) + "\n"});
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
