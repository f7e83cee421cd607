// Power models written in their exact formats into a temporary directory, loaded against a
// two-cluster phone's policies (an SDM845's frequency tables): each format and unit, the
// matching, the arithmetic by hand, unmodelled time, and the bad inputs.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <clocale>
#include <cmath>
#include <filesystem>

#include "energy/raw_model.h"
#include "namespace.h"
#include "zelkcpufreqtime_energy.h"

namespace com::zelkora {
namespace {

using V = std::vector<uint64_t>;

const V kLittle = {300000,  403200,  480000,  576000,  652800,  748800,  825600,  902400,  979200,
                   1056000, 1132800, 1228800, 1324800, 1420800, 1516800, 1612800, 1689600, 1766400};
const V kBig = {825600,  902400,  979200,  1056000, 1209600, 1286400, 1363200, 1459200, 1536000,
                1612800, 1689600, 1766400, 1843200, 1920000, 1996800, 2092800, 2169600, 2246400,
                2323200, 2400000, 2476800, 2553600, 2649600, 2745600, 2803200};

PolicyLayout phone() { return {{kLittle, kBig}, {{0, 1, 2, 3}, {4, 5, 6, 7}}}; }

// Times shaped like the phone's tables, zero but for the given (policy, kHz) entries.
TimeInStateVector timesAt(const std::vector<std::tuple<size_t, uint64_t, uint64_t>>& entries,
                          const PolicyLayout& layout = phone()) {
  TimeInStateVector times;
  for (const V& freqs : layout.freqs) times.emplace_back(freqs.size(), 0);
  for (const auto& [policy, khz, ns] : entries) {
    const V& freqs = layout.freqs[policy];
    const size_t index = std::find(freqs.begin(), freqs.end(), khz) - freqs.begin();
    EXPECT_LT(index, freqs.size()) << khz;
    times[policy][index] = ns;
  }
  return times;
}

constexpr uint64_t kSecond = 1000000000;

class PowerModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/zelk-power-model-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string write(const std::string& relPath, const std::string& content) {
    const std::string path = dir_ + "/" + relPath;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    EXPECT_TRUE(android::base::WriteStringToFile(content, path)) << path;
    return path;
  }
  // A performance domain as debugfs shows it: `state` is "ps" or "cs".
  void writeDomain(const std::string& domain, const std::string& cpus, const std::string& state,
                   const std::vector<std::pair<uint64_t, uint64_t>>& khzPower) {
    write("em/" + domain + "/cpus", cpus + "\n");
    for (const auto& [khz, power] : khzPower) {
      const std::string dir = "em/" + domain + "/" + state + ":" + std::to_string(khz) + "/";
      write(dir + "frequency", std::to_string(khz) + "\n");
      write(dir + "power", std::to_string(power) + "\n");
      write(dir + "cost", "1\n");
    }
  }
  // Every frequency of the phone at power = kHz / 10 (little) or kHz / 2 (big).
  void writePhoneModel(const std::string& state) {
    std::vector<std::pair<uint64_t, uint64_t>> little, big;
    for (uint64_t khz : kLittle) little.emplace_back(khz, khz / 10);
    for (uint64_t khz : kBig) big.emplace_back(khz, khz / 2);
    const bool old = state == "cs";
    writeDomain(old ? "pd0" : "cpu0", "0-3", state, little);
    writeDomain(old ? "pd4" : "cpu4", "4-7", state, big);
  }

  PowerModel load(const std::string& path, std::optional<double> voltage = std::nullopt,
                  const PolicyLayout& layout = phone()) {
    PowerModelResult result = loadPowerModel(path, layout, voltage);
    EXPECT_TRUE(result.model.has_value()) << result.error;
    return result.model.value_or(PowerModel{});
  }
  // The error, which must be one line naming the file.
  std::string loadError(const std::string& path, std::optional<double> voltage = std::nullopt,
                        const PolicyLayout& layout = phone()) {
    PowerModelResult result = loadPowerModel(path, layout, voltage);
    EXPECT_FALSE(result.model.has_value()) << path;
    EXPECT_EQ(result.error.rfind(path + ": ", 0), 0u) << result.error;
    EXPECT_EQ(result.error.find('\n'), std::string::npos) << result.error;
    return result.error;
  }
  EnergyEstimate estimate(const PowerModel& model, const TimeInStateVector& times) {
    const auto result = estimateEnergy(model, times);
    EXPECT_TRUE(result.has_value());
    return result.value_or(EnergyEstimate{});
  }

  std::string dir_;
};

TEST_F(PowerModelTest, EnergyModelInMicrowattsGivesMicrojoules) {
  writePhoneModel("ps");
  write("em/cpu0/flags", "0x1\n");
  write("em/cpu4/flags", "0x3\n");  // µW, skipping inefficient states
  // A device that is not a CPU has no cpus file and is left out.
  write("em/5000000.gpu/ps:257000000/frequency", "257000000\n");
  write("em/5000000.gpu/ps:257000000/power", "9000\n");
  const PowerModel model = load(dir_ + "/em");
  EXPECT_EQ(model.unit, EnergyUnit::kMicrojoules);
  EXPECT_EQ(model.source, dir_ + "/em");
  // 2 s at 1766400 kHz on a little CPU (176640 µW) and 0.5 s at 2803200 on a big one (1401600
  // µW): 353280 + 700800 µJ.
  const EnergyEstimate e =
      estimate(model, timesAt({{0, 1766400, 2 * kSecond}, {1, 2803200, kSecond / 2}}));
  EXPECT_EQ(e.unit, EnergyUnit::kMicrojoules);
  EXPECT_EQ(e.energy, 1054080u);
  EXPECT_EQ(e.unmodelledNs, 0u);
  EXPECT_STREQ(energyUnitName(e.unit), "uJ");
}

TEST_F(PowerModelTest, OlderLayoutsAreInMilliwattsOrAbstract) {
  writePhoneModel("cs");  // pd<N>/cs:<kHz>, power in mW, no units file
  // 1.5 s at 300000 kHz: 30000 mW × 1.5 s = 45 J.
  EXPECT_EQ(estimate(load(dir_ + "/em"), timesAt({{0, 300000, 3 * kSecond / 2}})).energy,
            45000000u);

  // A units file says mW or bogoWatts; the flags say µW or an abstract scale.
  const struct {
    const char* file;
    const char* text;
    EnergyUnit unit;
    uint64_t energy;  // for 1.5 s at 30000 (the number in the power file)
  } cases[] = {
      {"units", "milliWatts\n", EnergyUnit::kMicrojoules, 45000000},
      {"units", "bogoWatts\n", EnergyUnit::kAbstract, 45000000},
      {"flags", "0x1\n", EnergyUnit::kMicrojoules, 45000},
      {"flags", "0x0\n", EnergyUnit::kAbstract, 45000},
      {"flags", "0x5\n", EnergyUnit::kAbstract, 45000},  // artificial, though in µW
  };
  for (const auto& c : cases) {
    for (const char* domain : {"pd0", "pd4"}) {
      std::filesystem::remove(dir_ + "/em/" + domain + "/units");
      std::filesystem::remove(dir_ + "/em/" + domain + "/flags");
      write(std::string("em/") + domain + "/" + c.file, c.text);
    }
    const PowerModel model = load(dir_ + "/em");
    EXPECT_EQ(model.unit, c.unit) << c.file << " " << c.text;
    EXPECT_EQ(estimate(model, timesAt({{0, 300000, 3 * kSecond / 2}})).energy, c.energy)
        << c.file << " " << c.text;
  }
  // One abstract domain makes the whole sum abstract.
  write("em/pd0/flags", "0x1\n");
  EXPECT_EQ(load(dir_ + "/em").unit, EnergyUnit::kAbstract);
  EXPECT_STREQ(energyUnitName(EnergyUnit::kAbstract), "abstract");
}

TEST_F(PowerModelTest, FrequenciesWithoutPowerAreReportedAsUnmodelled) {
  writePhoneModel("ps");
  write("em/cpu0/flags", "0x1\n");
  write("em/cpu4/flags", "0x1\n");
  // A boost frequency that the model does not have, and a model state the table does not have.
  PolicyLayout layout = phone();
  layout.freqs[1].push_back(2956800);
  write("em/cpu0/ps:200000/frequency", "200000\n");
  write("em/cpu0/ps:200000/power", "1\n");
  const PowerModel model = load(dir_ + "/em", std::nullopt, layout);
  ASSERT_EQ(model.freqRates.size(), 2u);
  EXPECT_FALSE(model.freqRates[1].back().has_value());
  const EnergyEstimate e =
      estimate(model, timesAt({{1, 2956800, 3 * kSecond}, {0, 300000, kSecond}}, layout));
  EXPECT_EQ(e.unmodelledNs, 3 * kSecond);
  EXPECT_EQ(e.energy, 30000u) << "the modelled second alone";

  // A vector of another shape is refused, and so is a table holding one.
  EXPECT_FALSE(estimateEnergy(model, timesAt({})).has_value()) << "the phone's shape";
  EXPECT_FALSE(estimateEnergy(model, TimeInStateVector{{1}}).has_value());
  TimeInStateTable table;
  table[{"zelkbusy", 1}] = timesAt({{0, 300000, kSecond}}, layout);
  table[{"zelkidle", 0}] = timesAt({}, layout);
  const auto energies = estimateEnergy(model, table);
  ASSERT_TRUE(energies.has_value());
  EXPECT_EQ(energies->at({"zelkbusy", 1}).energy, 30000u);
  EXPECT_EQ(energies->at({"zelkidle", 0}).energy, 0u);
  table[{"zelkodd", 0}] = TimeInStateVector{{1}};
  EXPECT_FALSE(estimateEnergy(model, table).has_value());
}

constexpr char kClusterProfile[] = R"(<?xml version="1.0" encoding="utf-8"?>
<device name="Android">
  <item name="none">0</item>
  <item name="screen.on">102.4</item>
  <item name="cpu.suspend">1.5</item>
  <item name="cpu.idle">4.5</item>
  <item name="cpu.active">10</item>
  <array name="cpu.clusters.cores">
    <value>4</value>
    <value>4</value>
  </array>
  <item name="cpu.cluster_power.cluster0">2</item>
  <item name="cpu.cluster_power.cluster1">6.5</item>
  <array name="cpu.core_speeds.cluster0">
    <value>300000</value>
    <value>1766400</value>
  </array>
  <array name="cpu.core_power.cluster0">
    <value>50</value>
    <value>120.5</value>
  </array>
  <array name="cpu.core_speeds.cluster1">
    <value>825600</value>
    <value>2803200</value>
  </array>
  <array name="cpu.core_power.cluster1">
    <value>90</value>
    <value>400</value>
  </array>
  <item name="battery.capacity">3000</item>
</device>
)";

TEST_F(PowerModelTest, PowerProfileClustersGiveChargeOrEnergyWithAVoltage) {
  const std::string path = write("power_profile.xml", kClusterProfile);
  const PowerModel charge = load(path);
  EXPECT_EQ(charge.unit, EnergyUnit::kMicroampHours);
  // 3.6 s at 300000 kHz on cluster 0: (50 core + 2 cluster + 10 active) mA × 3.6 s = 62 µAh.
  const TimeInStateVector times = timesAt({{0, 300000, 3600 * kSecond / 1000}});
  EXPECT_EQ(estimate(charge, times).energy, 62u);
  // 1 s: 17.2 µAh, given whole and as it is.
  const EnergyEstimate second = estimate(charge, timesAt({{0, 300000, kSecond}}));
  EXPECT_EQ(second.energy, 17u);
  EXPECT_NEAR(second.exactEnergy, 62 / 3.6, 1e-9);
  // 36 s at 2803200 on cluster 1: (400 + 6.5 + 10) mA × 36 s = 4165 µAh; the little frequency
  // 403200 kHz is not in the profile.
  const EnergyEstimate both =
      estimate(charge, timesAt({{1, 2803200, 36 * kSecond}, {0, 403200, 7 * kSecond}}));
  EXPECT_EQ(both.energy, 4165u);
  EXPECT_EQ(both.unmodelledNs, 7 * kSecond);
  EXPECT_STREQ(energyUnitName(both.unit), "uAh");

  // At 3.8 V: 62 mA × 3.8 V × 3.6 s = 848.16 mJ.
  const PowerModel energy = load(path, 3.8);
  EXPECT_EQ(energy.unit, EnergyUnit::kMicrojoules);
  EXPECT_EQ(estimate(energy, times).energy, 848160u);
}

TEST_F(PowerModelTest, PowerProfilePerPolicyStepsFollowThePolicysFrequencies) {
  std::string steps0, steps4;
  for (size_t i = 0; i < kLittle.size(); ++i)
    steps0 += "<value>" + std::to_string(i + 1) + "</value>";
  for (size_t i = 0; i < kBig.size(); ++i)
    steps4 += "<value>" + std::to_string(100 + i) + "</value>";
  const std::string path = write("power_profile.xml",
                                 "<device name=\"Android\">\n<item name=\"cpu.active\">0.5</item>\n"
                                 "<item name=\"cpu.scaling_policy_power.policy0\">1.5</item>\n"
                                 "<array name=\"cpu.scaling_step_power.policy0\">" +
                                     steps0 +
                                     "</array>\n"
                                     "<array name=\"cpu.scaling_step_power.policy4\">" +
                                     steps4 + "</array>\n</device>\n");
  const PowerModel model = load(path);
  // 360 s at the third little step: (3 + 1.5 + 0.5) mA × 0.1 h = 0.5 mAh; 36 s at the last big
  // step: (124 + 0 + 0.5) mA × 0.01 h = 1.245 mAh.
  EXPECT_EQ(estimate(model, timesAt({{0, 480000, 360 * kSecond}})).energy, 500u);
  EXPECT_EQ(estimate(model, timesAt({{1, 2803200, 36 * kSecond}})).energy, 1245u);

  // One step fewer than the policy's frequencies.
  const size_t cut = steps4.rfind("<value>");
  write("power_profile.xml", "<device><array name=\"cpu.scaling_step_power.policy0\">" + steps0 +
                                 "</array><array name=\"cpu.scaling_step_power.policy4\">" +
                                 steps4.substr(0, cut) + "</array></device>");
  EXPECT_EQ(loadError(path),
            path +
                ": cpu.scaling_step_power.policy4 has 24 values, the policy of CPUs 4-7 has "
                "25 frequencies");
}

TEST_F(PowerModelTest, CsvModelByPolicyNumber) {
  const std::string path = write("model.csv",
                                 "# measured with a USB power meter\n"
                                 "policy,freq_khz,power_uw\n"
                                 "0,300000,41000\n"
                                 "policy0, 1766400 , 250000.5\r\n"
                                 "\n"
                                 "4,2803200,1500000\n");
  const PowerModel model = load(path);
  EXPECT_EQ(model.unit, EnergyUnit::kMicrojoules);
  // 2 s × 250000.5 µW + 0.25 s × 1500000 µW = 500001 + 375000 µJ; 1 s elsewhere unmodelled.
  const EnergyEstimate e = estimate(
      model, timesAt({{0, 1766400, 2 * kSecond}, {1, 2803200, kSecond / 4}, {1, 825600, kSecond}}));
  EXPECT_EQ(e.energy, 875001u);
  EXPECT_EQ(e.unmodelledNs, kSecond);
}

TEST_F(PowerModelTest, ModelsThatDoNotMatchThePoliciesAreRefused) {
  const std::string em = dir_ + "/em";
  writeDomain("cpu0", "0-2", "ps", {{300000, 1}});
  writeDomain("cpu4", "4-7", "ps", {{825600, 1}});
  EXPECT_EQ(loadError(em), em + ": cpu0 covers CPUs 0-2, which no policy has (this machine's "
                                "policies: CPUs 0-3; 4-7)");
  write("em/cpu0/cpus", "0-3\n");
  load(em);
  writeDomain("cpu8", "8", "ps", {{825600, 1}});  // more domains than policies
  EXPECT_EQ(loadError(em), em + ": cpu8 covers CPUs 8, which no policy has (this machine's "
                                "policies: CPUs 0-3; 4-7)");
  std::filesystem::remove_all(em + "/cpu8");
  std::filesystem::remove_all(em + "/cpu4");  // fewer
  EXPECT_EQ(loadError(em), em + ": nothing in the model for the policy of CPUs 4-7 (the model has "
                                "1 of 2 policies)");

  const std::string csv = write("m.csv", "0,300000,1\n2,825600,1\n");
  EXPECT_EQ(loadError(csv), csv +
                                ": policy2 is for the policy of CPU 2, which no policy has "
                                "(this machine's policies: CPUs 0-3; 4-7)");
  write("m.csv", "0,300000,1\n4,825600,1\npolicy4,902400,1\n");
  load(csv);

  std::string profile = kClusterProfile;
  const std::string xml = write("p.xml", profile);
  profile.replace(profile.find("<value>4</value>"), 16, "<value>6</value>");
  write("p.xml", profile);
  EXPECT_EQ(loadError(xml), xml + ": cluster0 has 6 cores, the policy of CPUs 0-3 has 4");
  PolicyLayout three = phone();
  three.freqs.push_back({3000000});
  three.cpus.push_back({8});
  write("p.xml", kClusterProfile);
  EXPECT_EQ(loadError(xml, std::nullopt, three),
            xml + ": the model has 2 clusters, this machine's policies: CPUs 0-3; 4-7; 8");
}

TEST_F(PowerModelTest, BadInputIsOneLineNamingTheFile) {
  const auto profileWith = [](const std::string& from, const std::string& to) {
    std::string text = kClusterProfile;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  const std::string xml = dir_ + "/power_profile.xml";
  const struct {
    std::string text;
    std::string error;
  } profiles[] = {
      {std::string(kClusterProfile).substr(0, 300),
       "line 8: not well-formed XML (XML_ERROR_PARSING)"},
      {"", "line 0: not well-formed XML (XML_ERROR_EMPTY_DOCUMENT)"},
      {"<resources/>", "not a power profile: the root element is not <device>"},
      {profileWith("<value>120.5</value>", "<value>high</value>"),
       "line 18: cpu.core_power.cluster0: not a number: \"high\""},
      {profileWith("<value>120.5</value>", "<value>-120.5</value>"),
       "line 18: cpu.core_power.cluster0: negative value \"-120.5\""},
      {profileWith("<value>120.5</value>", "<value>1e3</value>"),
       "line 18: cpu.core_power.cluster0: not a number: \"1e3\""},
      {profileWith("<value>1766400</value>", "<value>300000</value>"),
       "line 14: cpu.core_speeds.cluster0: duplicate frequency 300000 kHz"},
      {profileWith("<value>120.5</value>", "<value>120.5</value><value>130</value>"),
       "line 18: cpu.core_power.cluster0: 3 values, but cpu.core_speeds.cluster0 has 2"},
      {profileWith("cpu.core_power.cluster1", "cpu.core_power.cluster7"),
       "cluster 1 of cpu.clusters.cores has no cpu.core_power.cluster1"},
      {profileWith("\"cpu.active\">10", "\"cpu.active\">ten"),
       "line 7: cpu.active: not a number: \"ten\""},
      {profileWith("battery.capacity", "cpu.active"), "cpu.active given twice (first at line 7)"},
      // A name with a newline (a fuzzer's finding) still gives one line.
      {"<device><array name=\"cpu.scaling_step_power.policy\n4\"><value>1</value></array></device>",
       "line 1: cpu.scaling_step_power.policy?4: not a policy number"},
      {"<device><item name=\"screen.on\">1</item></device>",
       "no CPU power: neither cpu.clusters.cores nor cpu.scaling_step_power.policyN"},
  };
  for (const auto& c : profiles) {
    write("power_profile.xml", c.text);
    const std::string error = loadError(xml);
    EXPECT_NE(error.find(c.error), std::string::npos) << error << "\nexpected: " << c.error;
  }
  write("power_profile.xml", kClusterProfile);
  EXPECT_NE(loadError(xml, 0.0).find("the voltage must be a positive number"), std::string::npos);

  const std::string csv = dir_ + "/m.csv";
  const struct {
    std::string text;
    std::string error;
  } csvs[] = {
      {"0,300000,1\n0,300000,2\n", "line 2: duplicate frequency 300000 kHz for policy0"},
      {"0,300000,-5\n", "line 1: negative power \"-5\""},
      {"0,300000,lots\n", "line 1: not a power in µW: \"lots\""},
      {"0,300000\n", "line 1: 2 fields, expected policy,freq_khz,power_uw"},
      {"cpu0,300000,1\n", "line 1: not a policy: \"cpu0\""},
      {"0,0,1\n", "line 1: not a frequency in kHz: \"0\""},
      {"# nothing\n", "no rows"},
  };
  for (const auto& c : csvs) {
    write("m.csv", c.text);
    EXPECT_EQ(loadError(csv), csv + ": " + c.error);
  }
  write("m.csv", "0,300000,1\n4,825600,1\n");
  EXPECT_EQ(loadError(csv, 3.8), csv + ": a voltage applies to a power profile only");

  const std::string em = dir_ + "/em";
  writePhoneModel("ps");
  const struct {
    std::string file;
    std::string text;
    std::string error;
  } trees[] = {
      {"cpu0/ps:300000/power", "-3\n", "cpu0/ps:300000/power: negative power \"-3\""},
      {"cpu0/ps:300000/power", "abc\n", "cpu0/ps:300000/power: not a number: \"abc\""},
      {"cpu0/ps:300000/frequency", "fast\n", "cpu0/ps:300000/frequency: not a frequency: \"fast\""},
      {"cpu0/ps:300001/frequency", "403200\n",
       "cpu0: duplicate frequency 403200 kHz (ps:300001 and ps:403200)"},
      {"cpu0/cpus", "zero\n", "cpu0/cpus: not a CPU list: \"zero\""},
      {"cpu0/units", "horsepower\n", "cpu0/units: unknown unit \"horsepower\""},
      {"cpu0/flags", "x\n", "cpu0/flags: not a number: \"x\""},
  };
  for (const auto& c : trees) {
    std::filesystem::remove_all(em);
    writePhoneModel("ps");
    write("em/" + c.file, c.text);
    if (c.file == "cpu0/ps:300001/frequency") write("em/cpu0/ps:300001/power", "5\n");
    const std::string error = loadError(em);
    EXPECT_EQ(error, em + ": " + c.error) << c.file;
  }
  std::filesystem::remove_all(em);
  writePhoneModel("ps");
  std::filesystem::remove(em + "/cpu4/ps:825600/power");
  EXPECT_EQ(loadError(em), em + ": cpu4/ps:825600: no power file");
  std::filesystem::remove_all(em);
  std::filesystem::create_directories(em);
  EXPECT_EQ(loadError(em), em + ": no CPU performance domain (no directory with a cpus file)");

  const std::string missing = dir_ + "/nothing.xml";
  EXPECT_EQ(loadError(missing), missing + ": No such file or directory");
}

// The same in a program that set a German locale, whose decimal separator is a comma: a
// locale-following parser read 0.75 there as 0 and 1500.5 as 1500.
TEST(PowerNumberTest, PlainNonNegativeDecimalsOnlyInAnyLocale) {
  const std::string kHuge = "1" + std::string(400, '0');  // beyond a double
  const struct {
    std::string text;
    std::optional<double> value;
    bool negative;
  } cases[] = {
      {"17", 17, false},    {" 0.5\n", 0.5, false}, {".25", 0.25, false},      {"3.", 3, false},
      {"-0", 0, false},     {"0.75", 0.75, false},  {"1500.5", 1500.5, false}, {"-2", {}, true},
      {"", {}, false},      {".", {}, false},       {"1e3", {}, false},        {"0x10", {}, false},
      {"inf", {}, false},   {"nan", {}, false},     {"1 2", {}, false},        {"+1", {}, false},
      {"1.2.3", {}, false}, {"1,5", {}, false},     {kHuge, {}, false},
  };
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (setlocale(LC_NUMERIC, locale) == nullptr) {
      ZELK_SKIP_OR_FAIL(std::string("no locale ") + locale + " (scripts/install-deps makes it)");
    }
    for (const auto& c : cases) {
      bool negative = true;
      EXPECT_EQ(parsePowerNumber(c.text, &negative), c.value) << '"' << c.text << "\" " << locale;
      EXPECT_EQ(negative, c.negative) << '"' << c.text << "\" " << locale;
    }
  }
  setlocale(LC_NUMERIC, "C");
}

}  // namespace
}  // namespace com::zelkora
