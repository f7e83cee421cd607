#include "core/possible_cpus.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include "core/decimal.h"

namespace com {
namespace zelkora {
namespace {

// The kernel never has more CPUs than this (NR_CPUS is at most 8192 today).
constexpr uint32_t kMaxCpus = 1u << 16;

}  // namespace

std::optional<std::vector<uint32_t>> parseCpuList(const std::string& text) {
  const std::string list = android::base::Trim(text);
  if (list.empty()) return std::nullopt;
  std::vector<uint32_t> cpus;
  for (const std::string& range : android::base::Split(list, ",")) {
    const std::vector<std::string> ends = android::base::Split(range, "-");
    uint32_t first;
    uint32_t last;
    if (ends.size() > 2 || !parseDecimal(ends.front(), &first, kMaxCpus - 1) ||
        !parseDecimal(ends.back(), &last, kMaxCpus - 1) || last < first ||
        cpus.size() + (last - first) >= kMaxCpus) {
      return std::nullopt;
    }
    for (uint32_t cpu = first; cpu <= last; ++cpu) cpus.push_back(cpu);
  }
  return cpus;
}

std::optional<uint32_t> parseCpuListCount(const std::string& text) {
  const std::optional<std::vector<uint32_t>> cpus = parseCpuList(text);
  if (!cpus) return std::nullopt;
  return static_cast<uint32_t>(cpus->size());
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
