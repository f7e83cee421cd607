#include "machine/synthetic_policy.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstring>

namespace zelk::cli {
namespace {

// "<digits>[.<digits>]" at the start of `text`, scaled by `scale` (kHz per unit), exactly: by
// hand, since a floating-point parse would round "2.4GHz" to a kHz off by one.
std::optional<uint64_t> scaledDecimal(const std::string& text, uint64_t scale, size_t* used) {
  size_t i = 0;
  uint64_t whole = 0;
  while (i < text.size() && isdigit(static_cast<unsigned char>(text[i])) && whole < 1000000) {
    whole = whole * 10 + static_cast<uint64_t>(text[i++] - '0');
  }
  if (i == 0) return std::nullopt;
  uint64_t value = whole * scale;
  if (i < text.size() && text[i] == '.') {
    ++i;
    for (uint64_t unit = scale / 10;
         i < text.size() && isdigit(static_cast<unsigned char>(text[i])); ++i, unit /= 10) {
      value += static_cast<uint64_t>(text[i] - '0') * unit;  // digits below 1 kHz drop out
    }
  }
  *used = i;
  return value;
}

std::optional<uint64_t> frequencyAfterAt(const std::string& model) {
  const size_t at = model.rfind('@');
  if (at == std::string::npos) return std::nullopt;
  const std::string rest = android::base::Trim(model.substr(at + 1));
  size_t used = 0;
  for (const auto& [unit, scale] : {std::pair{"GHz", 1000000}, std::pair{"MHz", 1000}}) {
    const std::optional<uint64_t> khz = scaledDecimal(rest, scale, &used);
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
      const std::optional<uint64_t> khz = scaledDecimal(value, 1000, &used);
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
