// What an interval's difference says per second: CPU use, average frequencies, the time in each
// frequency band and power, for the live view.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/cgroup_rows.h"
#include "model/snapshot_diff.h"
#include "model/times.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

// The low, middle and high third of each policy's frequencies.
inline constexpr size_t kFrequencyBands = 3;
using BandTimes = std::array<uint64_t, kFrequencyBands>;

// The band of the `index`th of a policy's `count` frequencies.
size_t bandOf(size_t index, size_t count);
BandTimes timePerBand(const FreqTable& freqs, const Times& times);

// `ns` of CPU time over `elapsed` in % of `cpus` CPUs, or of one CPU when `cpus` is 0; 0 when no
// time elapsed.
double cpuPercent(uint64_t ns, std::chrono::steady_clock::duration elapsed, unsigned cpus = 0);

// One policy over the interval.
struct PolicyLoad {
  uint64_t busyNs = 0;
  // Out of the policy's capacity over the interval (its online CPUs times the interval), per
  // frequency; without its CPUs, out of its busy time.
  std::vector<double> shareAt;
  std::optional<double> busyPercent;  // of its capacity; none without its CPUs
  uint64_t avgKhz = 0;                // time-weighted; 0 without time
};

// `cpus`: the policy's online CPUs, 0 where unknown.
PolicyLoad policyLoad(const SnapshotDiff& diff, size_t policy, unsigned cpus);

enum class TopSort { kCpu, kPower, kFrequency };

// A task that ran in the interval, or a cgroup whose tasks did.
struct TaskRate {
  std::string name;  // a cgroup's path, as its CgroupRow has it
  uint64_t flag = 0;
  double cpuPercent = 0;        // of one CPU
  uint64_t avgKhz = 0;          // time-weighted over the interval
  BandTimes bands{};            // its time per frequency band
  std::optional<double> power;  // in the model's rate unit; without a model or a fit, none
};

// The processes' (or kernel threads') rows of the tasks that ran in the interval (vanished names
// and idle ones have none), in the order of `sort`: then busiest first, then name, then flag.
std::vector<TaskRate> taskRates(const SnapshotDiff& diff, bool kthreads, TopSort sort,
                                const com::zelkora::PowerModel* model);

// The cgroups' rows as cgroupRows makes them from the interval's times, each with its
// descendants', of those that ran in it (ids that vanished add nothing), in the order of `sort`:
// then in path order.
std::vector<TaskRate> cgroupRates(const SnapshotDiff& diff, const CgroupRowSettings& settings,
                                  TopSort sort, const com::zelkora::PowerModel* model);

}  // namespace zelk::cli
