// The nominal frequency of a machine without a cpufreq driver, from /proc/cpuinfo's formats.
#include "machine/synthetic_policy.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

TEST(NominalFrequencyTest, ModelNameThenCpuMhzExactly) {
  const struct {
    const char* cpuinfo;
    std::optional<uint64_t> khz;
  } cases[] = {
      {"model name\t: Intel(R) Xeon(R) CPU @ 2.40GHz\ncpu MHz\t: 2394.454\n", 2400000},
      {"model name\t: Some CPU @ 2.1GHz\n", 2100000},
      {"model name\t: Some CPU @ 800MHz\n", 800000},
      {"model name\t: AMD EPYC 7B13\ncpu MHz\t\t: 2450.000\n", 2450000},
      {"cpu MHz\t: 2394.554\n", 2395000},  // rounded to whole MHz
      {"model name\t: CPU @ 2.40 GHz!\ncpu MHz : 2.4.5\n", std::nullopt},
      {"cpu MHz : 0.2\n", std::nullopt},  // rounds to 0 MHz
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    const std::optional<NominalFrequency> nominal = nominalFrequency(c.cpuinfo);
    EXPECT_EQ(nominal ? std::optional<uint64_t>(nominal->khz) : std::nullopt, c.khz) << c.cpuinfo;
  }
}

}  // namespace
}  // namespace zelk::cli
