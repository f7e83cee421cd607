#include "core/possible_cpus.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include <cerrno>
#include <cstdlib>

namespace com {
namespace zelkora {
namespace {

// The kernel never has more CPUs than this (NR_CPUS is at most 8192 today).
constexpr uint64_t kMaxCpus = 1u << 16;

std::optional<uint64_t> parseCpu(const std::string& text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  errno = 0;
  const unsigned long long cpu = strtoull(text.c_str(), nullptr, 10);
  if (errno != 0 || cpu >= kMaxCpus) return std::nullopt;
  return cpu;
}

}  // namespace

std::optional<uint32_t> parseCpuListCount(const std::string& text) {
  const std::string list = android::base::Trim(text);
  if (list.empty()) return std::nullopt;
  uint64_t count = 0;
  for (const std::string& range : android::base::Split(list, ",")) {
    const size_t dash = range.find('-');
    const std::optional<uint64_t> first = parseCpu(range.substr(0, dash));
    const std::optional<uint64_t> last =
        dash == std::string::npos ? first : parseCpu(range.substr(dash + 1));
    if (!first || !last || *last < *first) return std::nullopt;
    count += *last - *first + 1;
    if (count > kMaxCpus) return std::nullopt;
  }
  return static_cast<uint32_t>(count);
}

std::optional<uint32_t> readPossibleCpuCount() {
  std::string text;
  if (!android::base::ReadFileToString("/sys/devices/system/cpu/possible", &text)) {
    return std::nullopt;
  }
  return parseCpuListCount(text);
}

}  // namespace zelkora
}  // namespace com
