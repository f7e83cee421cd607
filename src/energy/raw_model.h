// A power model as its file says it, before it is matched to the machine's policies, and the
// parsers of the three formats. Parsers take text (or a directory's files as text), so that the
// fuzzers and the tests reach them without a filesystem.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zelkcpufreqtime_energy.h"

namespace com {
namespace zelkora {

// One performance domain, cluster or policy of the model. Exactly one of cpus, policy and
// coreCount says which policy it is for.
struct RawDomain {
  std::string label;                          // for messages: "cpu0", "cluster1", "policy4"
  std::optional<std::vector<uint64_t>> cpus;  // an Energy Model domain's CPUs, sorted
  std::optional<uint64_t> policy;             // a policy's number (its lowest CPU)
  std::optional<uint64_t> coreCount;          // a profile cluster, matched in order
  std::map<uint64_t, double> rates;           // kHz -> rate (unit per second)
  // A profile's per-policy steps: one rate per frequency of the policy, in its order, used
  // instead of `rates` when not empty.
  std::vector<double> stepRates;
  std::string stepsName;  // the array that gave stepRates, for messages
  double domainRate = 0;  // the cluster or policy term
};

struct RawModel {
  EnergyUnit unit = EnergyUnit::kMicrojoules;
  std::vector<RawDomain> domains;
  double activeRate = 0;
};

struct RawModelResult {
  std::optional<RawModel> model;
  std::string error;
};

// An Energy Model directory as relative path -> content: "<domain>/cpus", "<domain>/flags",
// "<domain>/units", "<domain>/<state>/" (a state directory, content ignored),
// "<domain>/<state>/frequency" and ".../power", where <state> is "ps:<kHz>" or "cs:<kHz>".
using FileTree = std::map<std::string, std::string>;
RawModelResult parseEnergyModel(const FileTree& files);
// Reads those files of the directory at `path`; false with `error` set when it cannot be read.
bool readEnergyModelTree(const std::string& path, FileTree* files, std::string* error);

// A power_profile.xml's text; `voltage` in volts turns its mA into µW.
RawModelResult parsePowerProfile(const std::string& text, std::optional<double> voltage);

// A CSV model's text.
RawModelResult parseCsvModel(const std::string& text);

struct MatchResult {
  std::optional<PowerModel> model;
  std::string error;
};

// Matches `raw` to the policies; `source` becomes the model's source.
MatchResult matchModel(const RawModel& raw, const PolicyLayout& policies,
                       const std::string& source);

// A non-negative decimal ("17", "0.5", " 3.25\n"); no value for anything else. `negative` is
// set when the text is a negative number, so that a message can say so.
std::optional<double> parsePowerNumber(const std::string& text, bool* negative = nullptr);

// `text` in quotes, cut short and with control bytes replaced, for one-line messages.
std::string quoted(const std::string& text);
// `text` with control bytes replaced: names from the files (a domain directory, an array's
// name) may hold a newline, and messages are one line.
std::string oneLine(std::string text);

}  // namespace zelkora
}  // namespace com
