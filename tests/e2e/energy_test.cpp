// The energy view end to end: a busy child at a known frequency, its energy as the built tool
// reports it under a CSV model, against its schedstat runtime times the model's power.
#include <android-base/file.h>

#include <regex>

#include "e2e_bed.h"

namespace zelk::testbed {
namespace {

using EnergyTest = TrackingTest;

constexpr uint64_t kPowerUw = 750000;  // at 300000 kHz, the frequency the bed sets as current

TEST_F(EnergyTest, ToolEnergyIsRuntimeTimesPowerAtTheCurrentFrequency) {
  // Counted under the new name from the slice after the first word, as in the time tests.
  Child child = spinner("zelkenergy", {800});
  const uint64_t before = runtimeAtWord(child);
  child.go();
  const uint64_t runtime = runtimeAtWord(child) - before;

  // Only the first frequency has a power: the time at the others is reported, not guessed.
  const std::string model = "/tmp/zelk-energy-test-model.csv";
  ASSERT_TRUE(android::base::WriteStringToFile(
      "policy,freq_khz,power_uw\n0,300000," + std::to_string(kPowerUw) + "\n", model));
  const ChildResult run =
      runProgram(ZELK_TOOL_PATH,
                 {"show", "energy", "process", "zelkenergy", "--flag", "--model", model, "--json"},
                 nullptr, /*withStderr=*/false);
  unlink(model.c_str());
  ASSERT_EQ(run.status, 0) << run.output;
  std::smatch match;
  ASSERT_TRUE(std::regex_match(
      run.output, match,
      std::regex(R"(\{"unit":"uJ","model":"[^"]+","process":\{"name":"zelkenergy","flag":1,)"
                 R"("energy":([0-9]+),"unmodelled_ns":0\}\}\n)")))
      << run.output;
  const double energy = std::stod(match[1]);
  const double expected = static_cast<double>(runtime) * kPowerUw / 1e9;
  printf("zelkenergy: %.0f uJ from the tool, %.0f uJ from schedstat %.3f ms x %llu uW (%+.2f%%)\n",
         energy, expected, runtime / 1e6, static_cast<unsigned long long>(kPowerUw),
         100 * (energy - expected) / expected);
  // The object counts the CPU's wall time, schedstat the task's own clock, which leaves out
  // interrupts and what the hypervisor took (/proc/stat's figure for them, over all CPUs).
  const double untasked = static_cast<double>(untaskedSinceStart()) * kPowerUw / 1e9;
  EXPECT_GE(energy, 0.99 * expected);
  EXPECT_LE(energy, 1.01 * expected + untasked) << untasked << " uJ of interrupts and steal";
}

}  // namespace
}  // namespace zelk::testbed
