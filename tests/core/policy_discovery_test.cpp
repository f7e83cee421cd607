// Discovery of cpufreq policies from trees built in the test's own cpufreq tmpfs.
#include "core/policy_discovery.h"

#include <gtest/gtest.h>

#include <cstring>

#include "namespace.h"
#include "policy_tree.h"

namespace com::zelkora {
namespace {

using zelk::testbed::addPolicy;
using zelk::testbed::kernelList;
using zelk::testbed::writeCpufreqFile;
using Table = std::vector<std::vector<uint64_t>>;
using V = std::vector<uint64_t>;

class PolicyDiscoveryTest : public zelk::testbed::KernelTest {};

TEST_F(PolicyDiscoveryTest, OrdersPoliciesByNumberAndSkipsOtherEntries) {
  addPolicy("policy10", {3}, {10});
  addPolicy("policy4", {2}, {4});
  addPolicy("policy0", {1}, {0});
  writeCpufreqFile("boost", "1\n");
  writeCpufreqFile("schedutil/up_rate_limit_us", "500\n");
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->policyCount, 3u);
  EXPECT_EQ(tables->freqTable, (Table{{1}, {2}, {3}}));
  EXPECT_EQ(tables->relatedCpus, (Table{{0}, {4}, {10}}));
}

TEST_F(PolicyDiscoveryTest, RealPhoneLayout) {
  const Table expected = zelk::testbed::addPhoneTree();
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->freqTable, expected);
  EXPECT_EQ(tables->relatedCpus, (Table{{0, 1, 2, 3}, {4, 5, 6}, {7}}));
  EXPECT_EQ(tables->cpuSlot, (V{0, 1, 2, 3, 4, 5, 6, 7})) << "contiguous CPUs: slot == number";
}

TEST_F(PolicyDiscoveryTest, MergesAvailableAndBoostFrequenciesSortedWithDuplicates) {
  writeCpufreqFile("policy0/scaling_available_frequencies", kernelList({1800000, 300000, 900000}));
  writeCpufreqFile("policy0/scaling_boost_frequencies", kernelList({2000000, 1800000}));
  writeCpufreqFile("policy0/related_cpus", kernelList({0}));
  // Boost frequencies alone are enough.
  writeCpufreqFile("policy1/scaling_boost_frequencies", kernelList({500, 400}));
  writeCpufreqFile("policy1/related_cpus", kernelList({1}));
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->freqTable, (Table{{300000, 900000, 1800000, 1800000, 2000000}, {400, 500}}));
}

TEST_F(PolicyDiscoveryTest, NumberFormatsAndInvalidTokens) {
  writeCpufreqFile("policy0/scaling_available_frequencies", "0x493E0 0755 \n");
  writeCpufreqFile("policy0/related_cpus", "0x0\n");
  // An invalid token drops only its own file: the boost file still counts.
  writeCpufreqFile("policy1/scaling_available_frequencies", "100 abc 300 \n");
  writeCpufreqFile("policy1/scaling_boost_frequencies", "900 \n");
  writeCpufreqFile("policy1/related_cpus", "1\n");
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->freqTable, (Table{{755, 300000}, {900}}));
  EXPECT_EQ(tables->relatedCpus, (Table{{0}, {1}}));
}

TEST_F(PolicyDiscoveryTest, FailsWithoutAUsablePolicy) {
  EXPECT_FALSE(discoverPolicies().has_value()) << "empty directory";
  EXPECT_FALSE(discoverPolicies("/sys/devices/system/cpu/cpufreq/missing").has_value());

  writeCpufreqFile("policy0/scaling_available_frequencies", "abc\n");
  writeCpufreqFile("policy0/scaling_boost_frequencies", "\n");
  writeCpufreqFile("policy0/related_cpus", "0\n");
  EXPECT_FALSE(discoverPolicies().has_value()) << "no frequency at all";
}

TEST_F(PolicyDiscoveryTest, RelatedCpusMustBeAListOfNumbers) {
  addPolicy("policy0", {100}, {0});
  writeCpufreqFile("policy4/scaling_available_frequencies", kernelList({200}));
  writeCpufreqFile("policy4/related_cpus", "4-7\n");
  EXPECT_FALSE(discoverPolicies().has_value()) << "a range is not a CPU number";

  writeCpufreqFile("policy4/related_cpus", "70000\n");
  EXPECT_FALSE(discoverPolicies().has_value()) << "no kernel has such a CPU";

  unlink("/sys/devices/system/cpu/cpufreq/policy4/related_cpus");
  EXPECT_FALSE(discoverPolicies().has_value()) << "unreadable";
}

TEST_F(PolicyDiscoveryTest, HostileFilesDropOnlyThemselves) {
  std::string binary(4096, '\0');
  for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 37);
  writeCpufreqFile("policy0/scaling_available_frequencies", binary);
  std::string huge;  // 4 MiB of frequencies
  while (huge.size() < (4u << 20)) huge += "1000 ";
  writeCpufreqFile("policy0/scaling_boost_frequencies", huge + "\n");
  writeCpufreqFile("policy0/related_cpus", "0\n");
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->freqTable[0].size(), (4u << 20) / 5 + 1);

  writeCpufreqFile("policy0/related_cpus", binary);
  EXPECT_FALSE(discoverPolicies().has_value());
  writeCpufreqFile("policy0/related_cpus", "0\r\n");
  EXPECT_FALSE(discoverPolicies().has_value()) << "CRLF";
}

TEST_F(PolicyDiscoveryTest, EmptyRelatedCpusGiveAnEmptyList) {
  writeCpufreqFile("policy0/scaling_available_frequencies", kernelList({100}));
  writeCpufreqFile("policy0/related_cpus", "\n");
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->relatedCpus, (Table{{}}));
  EXPECT_EQ(tables->cpuSlot, (V{kNoCpuSlot})) << "one entry when no CPU is named";
}

TEST_F(PolicyDiscoveryTest, CpuSlotsFollowListOrderNotCpuNumbers) {
  addPolicy("policy0", {100}, {4, 5, 6, 7});
  addPolicy("policy1", {100}, {0, 1, 2, 3});
  addPolicy("policy2", {100}, {9});
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->cpuSlot, (V{4, 5, 6, 7, 0, 1, 2, 3, kNoCpuSlot, 8}));
}

TEST_F(PolicyDiscoveryTest, CpuListedTwiceKeepsItsLastSlot) {
  addPolicy("policy0", {100}, {0, 1});
  addPolicy("policy1", {100}, {1});
  const auto tables = discoverPolicies();
  ASSERT_TRUE(tables.has_value());
  EXPECT_EQ(tables->cpuSlot, (V{0, 2}));
}

dirent entry(const char* name) {
  dirent d = {};
  strncpy(d.d_name, name, sizeof(d.d_name) - 1);
  return d;
}

TEST(ComparePolicyFilesTest, OrdersByNumberAndTreatsOddNamesAsEqual) {
  const dirent p9 = entry("policy9"), p10 = entry("policy10"), odd = entry("policy_x");
  const dirent *a = &p9, *b = &p10, *c = &odd;
  EXPECT_LT(comparePolicyFiles(&a, &b), 0);
  EXPECT_GT(comparePolicyFiles(&b, &a), 0);
  EXPECT_EQ(comparePolicyFiles(&a, &a), 0);
  EXPECT_EQ(comparePolicyFiles(&a, &c), 0);
  EXPECT_EQ(comparePolicyFiles(&c, &b), 0);

  EXPECT_NE(isPolicyFile(&p10), 0);
  EXPECT_NE(isPolicyFile(&odd), 0) << "a plain prefix test";
  const dirent other = entry("polic"), upper = entry("Policy0");
  EXPECT_EQ(isPolicyFile(&other), 0);
  EXPECT_EQ(isPolicyFile(&upper), 0);
}

}  // namespace
}  // namespace com::zelkora
