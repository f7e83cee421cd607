// The platform's power_profile.xml: <device> holding <item name="...">number</item> and
// <array name="..."><value>number</value>...</array>. CPU power is current in mA: per cluster
// (cpu.clusters.cores, cpu.core_speeds.clusterN, cpu.core_power.clusterN,
// cpu.cluster_power.clusterN) or, in newer profiles, per policy (cpu.scaling_step_power.policyN
// with one value per frequency of the policy, cpu.scaling_policy_power.policyN); and cpu.active.
#include <android-base/stringprintf.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cmath>

#include "core/decimal.h"
#include "energy/raw_model.h"

using android::base::StringPrintf;

namespace com {
namespace zelkora {
namespace {

constexpr char kClusterCores[] = "cpu.clusters.cores";
constexpr char kCoreSpeeds[] = "cpu.core_speeds.cluster";
constexpr char kCorePower[] = "cpu.core_power.cluster";
constexpr char kClusterPower[] = "cpu.cluster_power.cluster";
constexpr char kStepPower[] = "cpu.scaling_step_power.policy";
constexpr char kPolicyPower[] = "cpu.scaling_policy_power.policy";
constexpr char kActive[] = "cpu.active";

struct Entry {
  std::vector<std::string> values;
  int line = 0;
};

RawModelResult failure(const std::string& error) { return {std::nullopt, oneLine(error)}; }

std::string at(const std::string& name, const Entry& entry) {
  return "line " + std::to_string(entry.line) + ": " + name;
}

class Profile {
 public:
  std::map<std::string, Entry> entries;
  std::string error;

  const Entry* find(const std::string& name) const {
    const auto it = entries.find(name);
    return it == entries.end() ? nullptr : &it->second;
  }

  // The entry's numbers; false with `error` set when one is not a non-negative number.
  bool numbers(const std::string& name, const Entry& entry, std::vector<double>* out) {
    for (const std::string& text : entry.values) {
      bool negative = false;
      const std::optional<double> value = parsePowerNumber(text, &negative);
      if (!value) {
        error =
            at(name, entry) + (negative ? ": negative value " : ": not a number: ") + quoted(text);
        return false;
      }
      out->push_back(*value);
    }
    return true;
  }

  // A single number: an item, or an array of one value; 0 when absent.
  bool single(const std::string& name, double* out) {
    *out = 0;
    const Entry* entry = find(name);
    if (entry == nullptr) return true;
    std::vector<double> values;
    if (!numbers(name, *entry, &values)) return false;
    if (values.size() != 1) {
      error = at(name, *entry) + ": " + std::to_string(values.size()) + " values, expected one";
      return false;
    }
    *out = values[0];
    return true;
  }

  // Whole numbers (core counts, kHz), each above 0.
  bool counts(const std::string& name, const Entry& entry, std::vector<uint64_t>* out) {
    for (const std::string& text : entry.values) {
      const size_t begin = text.find_first_not_of(" \t\r\n");
      const std::string token =
          begin == std::string::npos
              ? ""
              : text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
      uint64_t value = 0;
      if (!parseDecimal(token, &value, UINT64_MAX) || value == 0) {
        error = at(name, entry) + ": not a positive whole number: " + quoted(text);
        return false;
      }
      out->push_back(value);
    }
    return true;
  }
};

// Collects the items and arrays of the document; false with `error` set.
bool collect(const tinyxml2::XMLDocument& doc, Profile* profile) {
  const tinyxml2::XMLElement* device = doc.RootElement();
  if (device == nullptr || std::string(device->Name()) != "device") {
    profile->error = "not a power profile: the root element is not <device>";
    return false;
  }
  for (const tinyxml2::XMLElement* e = device->FirstChildElement(); e != nullptr;
       e = e->NextSiblingElement()) {
    const std::string kind = e->Name();
    if (kind != "item" && kind != "array") continue;
    const char* name = e->Attribute("name");
    if (name == nullptr) {
      profile->error =
          "line " + std::to_string(e->GetLineNum()) + ": <" + kind + "> without a name";
      return false;
    }
    Entry entry;
    entry.line = e->GetLineNum();
    if (kind == "item") {
      entry.values.push_back(e->GetText() == nullptr ? "" : e->GetText());
    } else {
      for (const tinyxml2::XMLElement* v = e->FirstChildElement("value"); v != nullptr;
           v = v->NextSiblingElement("value")) {
        entry.values.push_back(v->GetText() == nullptr ? "" : v->GetText());
      }
    }
    if (const Entry* seen = profile->find(name)) {
      profile->error = "line " + std::to_string(entry.line) + ": " + name +
                       " given twice (first at line " + std::to_string(seen->line) + ")";
      return false;
    }
    profile->entries.emplace(name, std::move(entry));
  }
  return true;
}

// The per-policy layout: cpu.scaling_step_power.policyN for each policy N.
bool policyDomains(Profile* profile, double scale, std::vector<RawDomain>* domains) {
  for (const auto& [name, entry] : profile->entries) {
    if (name.rfind(kStepPower, 0) != 0) continue;
    const std::string number = name.substr(sizeof(kStepPower) - 1);
    RawDomain domain;
    uint64_t policy = 0;
    if (!parseDecimal(number, &policy, UINT64_MAX)) {
      profile->error = at(name, entry) + ": not a policy number";
      return false;
    }
    domain.label = "policy" + number;
    domain.policy = policy;
    domain.stepsName = name;
    std::vector<double> steps;
    if (!profile->numbers(name, entry, &steps)) return false;
    if (steps.empty()) {
      profile->error = at(name, entry) + ": no value";
      return false;
    }
    for (double step : steps) domain.stepRates.push_back(step * scale);
    double policyPower = 0;
    if (!profile->single(kPolicyPower + number, &policyPower)) return false;
    domain.domainRate = policyPower * scale;
    domains->push_back(std::move(domain));
  }
  return true;
}

// The cluster layout.
bool clusterDomains(Profile* profile, double scale, std::vector<RawDomain>* domains) {
  const Entry* coresEntry = profile->find(kClusterCores);
  std::vector<uint64_t> cores;
  if (!profile->counts(kClusterCores, *coresEntry, &cores)) return false;
  if (cores.empty()) {
    profile->error = at(kClusterCores, *coresEntry) + ": no value";
    return false;
  }
  for (size_t i = 0; i < cores.size(); ++i) {
    const std::string n = std::to_string(i);
    const Entry* speedsEntry = profile->find(kCoreSpeeds + n);
    const Entry* powerEntry = profile->find(kCorePower + n);
    if (speedsEntry == nullptr || powerEntry == nullptr) {
      profile->error = StringPrintf("cluster %s of %s has no %s%s", n.c_str(), kClusterCores,
                                    speedsEntry == nullptr ? kCoreSpeeds : kCorePower, n.c_str());
      return false;
    }
    std::vector<uint64_t> speeds;
    std::vector<double> power;
    if (!profile->counts(kCoreSpeeds + n, *speedsEntry, &speeds) ||
        !profile->numbers(kCorePower + n, *powerEntry, &power)) {
      return false;
    }
    if (speeds.size() != power.size()) {
      profile->error =
          StringPrintf("%s: %zu values, but %s%s has %zu", at(kCorePower + n, *powerEntry).c_str(),
                       power.size(), kCoreSpeeds, n.c_str(), speeds.size());
      return false;
    }
    RawDomain domain;
    domain.label = "cluster" + n;
    domain.coreCount = cores[i];
    for (size_t s = 0; s < speeds.size(); ++s) {
      if (!domain.rates.emplace(speeds[s], power[s] * scale).second) {
        profile->error = at(kCoreSpeeds + n, *speedsEntry) + ": duplicate frequency " +
                         std::to_string(speeds[s]) + " kHz";
        return false;
      }
    }
    double clusterPower = 0;
    if (!profile->single(kClusterPower + n, &clusterPower)) return false;
    domain.domainRate = clusterPower * scale;
    domains->push_back(std::move(domain));
  }
  return true;
}

}  // namespace

RawModelResult parsePowerProfile(const std::string& text, std::optional<double> voltage) {
  if (voltage && !(std::isfinite(*voltage) && *voltage > 0)) {
    return failure("the voltage must be a positive number of volts");
  }
  tinyxml2::XMLDocument doc;
  if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
    return failure("line " + std::to_string(doc.ErrorLineNum()) + ": not well-formed XML (" +
                   doc.ErrorName() + ")");
  }
  Profile profile;
  if (!collect(doc, &profile)) return failure(profile.error);

  // mA to the result's rate per second: µAh per second, or µW (µJ per second) at the voltage.
  const double scale = voltage ? 1000.0 * *voltage : 1000.0 / 3600.0;
  RawModel model;
  model.unit = voltage ? EnergyUnit::kMicrojoules : EnergyUnit::kMicroampHours;
  const bool perPolicy =
      std::any_of(profile.entries.begin(), profile.entries.end(),
                  [](const auto& e) { return e.first.rfind(kStepPower, 0) == 0; });
  if (perPolicy) {
    if (!policyDomains(&profile, scale, &model.domains)) return failure(profile.error);
  } else if (profile.find(kClusterCores) != nullptr) {
    if (!clusterDomains(&profile, scale, &model.domains)) return failure(profile.error);
  } else {
    return failure(std::string("no CPU power: neither ") + kClusterCores + " nor " + kStepPower +
                   "N");
  }
  double active = 0;
  if (!profile.single(kActive, &active)) return failure(profile.error);
  model.activeRate = active * scale;
  return {std::move(model), ""};
}

}  // namespace zelkora
}  // namespace com
