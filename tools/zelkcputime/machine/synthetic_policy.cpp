#include "machine/synthetic_policy.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/decimal.h"

namespace zelk::cli {
namespace {

// The "<digits>[.<digits>]" at the start of `text` in kHz, `fractionDigits` being the digits of a
// kHz in its unit (6 for GHz, 3 for MHz); `used` is its length.
std::optional<uint64_t> leadingKhz(const std::string& text, unsigned fractionDigits, size_t* used) {
  *used = std::min(text.find_first_not_of("0123456789."), text.size());
  return com::zelkora::parseFixedPoint(text.substr(0, *used), fractionDigits);
}

std::optional<uint64_t> frequencyAfterAt(const std::string& model) {
  const size_t at = model.rfind('@');
  if (at == std::string::npos) return std::nullopt;
  const std::string rest = android::base::Trim(model.substr(at + 1));
  size_t used = 0;
  for (const auto& [unit, digits] : {std::pair{"GHz", 6u}, std::pair{"MHz", 3u}}) {
    const std::optional<uint64_t> khz = leadingKhz(rest, digits, &used);
    if (khz && *khz > 0 && rest.compare(used, std::string::npos, unit) == 0) return khz;
  }
  return std::nullopt;
}

}  // namespace

std::optional<NominalFrequency> nominalFrequency(const std::string& cpuinfo) {
  std::optional<uint64_t> cpuMhz;
  for (const std::string& line : android::base::Split(cpuinfo, "\n")) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string key = android::base::Trim(line.substr(0, colon));
    const std::string value = android::base::Trim(line.substr(colon + 1));
    if (key == "model name") {
      if (const std::optional<uint64_t> khz = frequencyAfterAt(value)) {
        return NominalFrequency{*khz, "the model name in /proc/cpuinfo"};
      }
    } else if (key == "cpu MHz" && !cpuMhz) {
      size_t used = 0;
      const std::optional<uint64_t> khz = leadingKhz(value, 3, &used);
      if (khz && *khz >= 500 && used == value.size()) cpuMhz = (*khz + 500) / 1000 * 1000;
    }
  }
  if (cpuMhz) return NominalFrequency{*cpuMhz, "\"cpu MHz\" in /proc/cpuinfo"};
  return std::nullopt;
}

std::string writeSyntheticPolicy(const std::string& dir, uint64_t khz,
                                 const std::vector<uint32_t>& cpus) {
  const std::string policy = dir + "/policy0";
  if (mkdir(policy.c_str(), 0755) != 0 && errno != EEXIST) {
    return "creating " + policy + ": " + strerror(errno);
  }
  // The kernel's formats: numbers followed by a space, then a newline.
  std::string cpuList;
  for (uint32_t cpu : cpus) cpuList += std::to_string(cpu) + " ";
  const std::pair<const char*, std::string> files[] = {
      {"scaling_available_frequencies", std::to_string(khz) + " \n"},
      {"scaling_cur_freq", std::to_string(khz) + "\n"},
      {"related_cpus", cpuList + "\n"},
  };
  for (const auto& [name, content] : files) {
    const std::string path = policy + "/" + name;
    if (!android::base::WriteStringToFile(content, path)) {
      return "writing " + path + ": " + strerror(errno);
    }
  }
  return "";
}

}  // namespace zelk::cli
