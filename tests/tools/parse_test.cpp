// What the tool parses: its command line, and the machine's CPU frequency and CPU list.
#include <gtest/gtest.h>

#include "options.h"
#include "synthetic_policy.h"

namespace zelk::cli {
namespace {

TEST(ParseOptionsTest, OptionsAnywhereAndTheirErrors) {
  ParsedOptions parsed =
      parseOptions({"--json", "show", "process", "--flag", "foo", "--limit", "3"});
  ASSERT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"show", "process", "foo"}));
  EXPECT_EQ(parsed.options.format, Format::kJson);
  EXPECT_EQ(parsed.options.limit, 3u);
  EXPECT_TRUE(parsed.options.flag);

  parsed = parseOptions({"show", "process", "--", "-bash", "--flag"});
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"show", "process", "-bash", "--flag"}));
  EXPECT_FALSE(parsed.options.flag);
  EXPECT_EQ(parseOptions({"demo", "--seconds", "3600"}).options.seconds, 3600u);

  const std::vector<std::string> bad[] = {
      {"--limit"},         {"--limit", "x"},      {"--limit", "-1"},
      {"--seconds", "0"},  {"--seconds", "3601"}, {"--seconds", "1.5"},
      {"--json", "--csv"}, {"--csv", "--json"},   {"--what"},
  };
  for (const auto& args : bad) EXPECT_NE(parseOptions(args).error, "") << args[0];
}

TEST(NominalFrequencyTest, ModelNameFirstThenCpuMhz) {
  const std::pair<std::string, std::optional<uint64_t>> rows[] = {
      {"model name\t: Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz\ncpu MHz\t\t: 2112.000\n", 1900000},
      {"cpu MHz\t\t: 2096.021\nmodel name\t: AMD EPYC\ncpu MHz\t\t: 1500.000\n", 2096000},
      {"model name\t: Some CPU @ 800MHz\n", 800000},
      {"model name\t: Xeon @ 2.1234567GHz\n", 2123456},  // below 1 kHz is dropped
      {"model name\t: Odd @ GHz\ncpu MHz : 999.5\n", 1000000},
      {"processor\t: 0\nBogoMIPS\t: 48.00\nCPU implementer\t: 0x41\n", std::nullopt},  // arm64
      {"cpu MHz\t\t: fast\n", std::nullopt},
      {"cpu MHz\t\t: 0.001\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [cpuinfo, khz] : rows) {
    const std::optional<NominalFrequency> found = nominalFrequency(cpuinfo);
    EXPECT_EQ(found ? std::optional<uint64_t>(found->khz) : std::nullopt, khz) << cpuinfo;
  }
}

TEST(ParseCpuListTest, ValidAndMalformedRows) {
  using V = std::vector<uint32_t>;
  const std::pair<std::string, std::optional<V>> rows[] = {
      {"0-1\n", V{0, 1}},
      {"0", V{0}},
      {"0-2,5,7-8", V{0, 1, 2, 5, 7, 8}},
      {"", std::nullopt},
      {"3-1", std::nullopt},
      {"0-", std::nullopt},
      {"a", std::nullopt},
      {"0,,1", std::nullopt},
      {"1-2-3", std::nullopt},
  };
  for (const auto& [text, cpus] : rows) EXPECT_EQ(parseCpuList(text), cpus) << text;
}

}  // namespace
}  // namespace zelk::cli
