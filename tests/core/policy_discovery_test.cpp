// The parsers of sysfs number files, CPU lists and decimals, and the discovery of cpufreq policies
// from trees built in the test's own cpufreq tmpfs.
#include "core/policy_discovery.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "core/decimal.h"
#include "core/number_file.h"
#include "core/possible_cpus.h"
#include "namespace.h"

namespace com::zelkora {
namespace {

using namespace zelk::testbed;
using Table = std::vector<std::vector<uint64_t>>;
using V = std::vector<uint64_t>;

TEST(ParseNumbersTest, ValidAndMalformedTexts) {
  const struct {
    std::string text;
    std::optional<V> expected;
  } cases[] = {
      {"300000 576000 1000000 \n", V{300000, 576000, 1000000}},  // the kernel's own format
      {"", V{}},
      {"1  2\n\n3", V{1, 2, 3}},                   // neighbouring separators give empty pieces
      {"0x493E0 0X10", V{300000, 16}},             // hexadecimal
      {"0755 00", V{755, 0}},                      // a leading zero alone is still decimal
      {"4294967295", V{4294967295u}},              // the largest 32-bit value
      {"\t5 \v6", V{5, 6}},                        // blanks inside a piece are skipped
      {"4294967296", std::nullopt},                // beyond 32 bits
      {"\t-4294967295", std::nullopt},             // strtoull would wrap it to 1
      {"1 2 x", std::nullopt},                     // one bad token spoils the file
      {"5\t", std::nullopt},                       // a trailing tab is left over
      {"5\r\n", std::nullopt},                     // CRLF: the carriage return is left over
      {std::string("1 2\0003", 5), std::nullopt},  // an embedded NUL
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parseNumbers(c.text), c.expected) << '"' << c.text << '"';
  }
}

TEST(ParseCpuListCountTest, ListsRangesAndMalformedLists) {
  const struct {
    const char* text;
    std::optional<uint32_t> expected;
  } cases[] = {
      {"0\n", 1},      {"0-7\n", 8},        {"0-3,6\n", 5}, {"0,2,4-5", 4}, {"3-3", 1},
      {"", {}},        {"\n", {}},          {"3-1", {}},    {"0-", {}},     {"-3", {}},
      {"a", {}},       {"0,,1", {}},        {"0 1", {}},    {"0-3;6", {}},  {"1-2-3", {}},
      {"0-70000", {}}, {"99999999999", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(parseCpuListCount(c.text), c.expected) << '"' << c.text;
  EXPECT_GE(readPossibleCpuCount().value_or(0), 1u) << "this machine's own list";
}

// The one reader of decimals with a fraction: power models, the tools' options, /proc/cpuinfo.
TEST(ParseDecimalTest, PlainDecimalsAndExactFixedPoint) {
  const struct {
    std::string text;
    std::optional<double> plain;
    std::optional<uint64_t> khzOfGhz;  // six fraction digits, the rest dropped
  } cases[] = {
      {"2.4", 2.4, 2400000},
      {"3", 3.0, 3000000},
      {"1.", 1.0, 1000000},
      {"0.0000015", 1.5e-6, 1},
      {"1500.5", 1500.5, 1500500000},
      {".5", 0.5, std::nullopt},
      {"", {}, {}},
      {".", {}, {}},
      {"1.2.3", {}, {}},
      {"-1", {}, {}},
      {"+1", {}, {}},
      {"1e3", {}, {}},
      {"inf", {}, {}},
      {"nan", {}, {}},
      {"0x1", {}, {}},
      {" 1", {}, {}},
      {"1,5", {}, {}},
      {"1.5x", {}, {}},
      {std::string(400, '9'), {}, {}},  // past a double, and past 64 bits
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parsePlainDecimal(c.text), c.plain) << '"' << c.text << '"';
    EXPECT_EQ(parseFixedPoint(c.text, 6), c.khzOfGhz) << '"' << c.text << '"';
  }
  EXPECT_EQ(parseFixedPoint("2595.1249", 3), 2595124u);
  EXPECT_EQ(parseFixedPoint("7", 0), 7u);
}

class PolicyDiscoveryTest : public KernelTest {};

TEST_F(PolicyDiscoveryTest, OrdersPoliciesByNumberAndMergesBothFrequencyFiles) {
  writeCpufreqFile("policy0/scaling_available_frequencies", kernelList({1800000, 300000, 900000}));
  writeCpufreqFile("policy0/scaling_boost_frequencies", kernelList({2000000, 1800000}));
  writeCpufreqFile("policy0/related_cpus", "0x0\n");
  // Boost frequencies alone are enough: an invalid token drops its own file only.
  writeCpufreqFile("policy10/scaling_available_frequencies", "100 abc 300 \n");
  writeCpufreqFile("policy10/scaling_boost_frequencies", "500 400 \n");
  writeCpufreqFile("policy10/related_cpus", "10\n");
  // A binary file beside a huge one (4 MiB): the huge one is read whole.
  writeCpufreqFile("policy4/scaling_available_frequencies", std::string("\x01\xfe\0\x7f", 4));
  std::string huge;
  while (huge.size() < (4u << 20)) huge += "1000 ";
  writeCpufreqFile("policy4/scaling_boost_frequencies", huge + "\n");
  writeCpufreqFile("policy4/related_cpus", "4\n");
  writeCpufreqFile("boost", "1\n");  // entries other than policies are skipped
  writeCpufreqFile("schedutil/up_rate_limit_us", "500\n");
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->policyCount, 3u);
  EXPECT_EQ(tables->names, (std::vector<std::string>{"policy0", "policy4", "policy10"}));
  EXPECT_EQ(tables->freqTable[0], (V{300000, 900000, 1800000, 1800000, 2000000}));
  EXPECT_EQ(tables->freqTable[1].size(), (4u << 20) / 5 + 1);
  EXPECT_EQ(tables->freqTable[2], (V{400, 500}));
  EXPECT_EQ(tables->relatedCpus, (Table{{0}, {4}, {10}}));
}

TEST_F(PolicyDiscoveryTest, FailsWithoutFrequenciesOrWithBadRelatedCpus) {
  EXPECT_FALSE(discoverPolicies().has_value()) << "no policy";
  EXPECT_FALSE(discoverPolicies("/sys/devices/system/cpu/cpufreq/missing").has_value());
  addPolicy("policy0", {100}, {0});
  writeCpufreqFile("policy4/scaling_available_frequencies", "abc\n");
  writeCpufreqFile("policy4/scaling_boost_frequencies", "\n");
  writeCpufreqFile("policy4/related_cpus", "4\n");
  EXPECT_FALSE(discoverPolicies().has_value()) << "a policy without frequencies";

  const std::string freqs = std::string(kCpufreqDir) + "/policy4/scaling_available_frequencies";
  ASSERT_EQ(unlink(freqs.c_str()), 0);
  ASSERT_EQ(symlink("../policy0/scaling_available_frequencies", freqs.c_str()), 0);
  EXPECT_FALSE(discoverPolicies().has_value()) << "frequencies read through a symlink";
  unlink(freqs.c_str());
  writeCpufreqFile("policy4/scaling_available_frequencies", kernelList({200}));
  ASSERT_TRUE(discoverPolicies().has_value());
  // A range, a CPU that no kernel has, CRLF, binary.
  for (const char* related : {"4-7\n", "70000\n", "4\r\n", "\x01\xfe\n"}) {
    writeCpufreqFile("policy4/related_cpus", related);
    EXPECT_FALSE(discoverPolicies().has_value()) << related;
  }
  unlink("/sys/devices/system/cpu/cpufreq/policy4/related_cpus");
  EXPECT_FALSE(discoverPolicies().has_value()) << "unreadable";
}

TEST_F(PolicyDiscoveryTest, CpuSlotsFollowTheListsNotTheCpuNumbers) {
  const struct {
    Table related;
    V slots;
  } cases[] = {
      {{{0, 1, 2, 3}, {4, 5, 6}, {7}}, {0, 1, 2, 3, 4, 5, 6, 7}},
      {{{4, 5, 6, 7}, {0, 1, 2, 3}, {9}}, {4, 5, 6, 7, 0, 1, 2, 3, kNoCpuSlot, 8}},
      {{{0, 1}, {1}}, {0, 2}},  // a CPU listed twice keeps its last slot
      {{{}}, {kNoCpuSlot}},     // no CPU at all: one empty slot
  };
  for (const auto& c : cases) {
    ASSERT_EQ(system("rm -rf /sys/devices/system/cpu/cpufreq/policy*"), 0);
    for (size_t i = 0; i < c.related.size(); ++i) {
      addPolicy("policy" + std::to_string(i), {100}, c.related[i]);
    }
    const auto tables = discoverPolicies();
    ASSERT_TRUE(tables.has_value());
    EXPECT_EQ(tables->relatedCpus, c.related);
    EXPECT_EQ(tables->cpuSlot, c.slots);
  }
}

}  // namespace
}  // namespace com::zelkora
