// The kernel's Energy Model as debugfs shows it: one directory per performance domain, with its
// CPUs and one directory per performance state holding its frequency and power.
#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "core/decimal.h"
#include "core/number_file.h"
#include "core/possible_cpus.h"
#include "energy/raw_model.h"

using android::base::StringPrintf;

namespace com {
namespace zelkora {
namespace {

// The domain's flags: bit 0 says µW (without it the scale is abstract), bit 2 an artificial
// model, whose numbers are relative costs.
constexpr uint64_t kFlagMicrowatts = 1u << 0;
constexpr uint64_t kFlagArtificial = 1u << 2;

struct DomainFiles {
  std::optional<std::string> cpus, flags, units;
  std::map<std::string, std::map<std::string, std::string>> states;  // state -> file -> text
};

bool isStateName(const std::string& name) {
  return name.rfind("ps:", 0) == 0 || name.rfind("cs:", 0) == 0;
}

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

RawModelResult failure(const std::string& error) { return {std::nullopt, oneLine(error)}; }

// The domain's power scale: the factor to µW, and whether it is abstract.
bool domainScale(const std::string& name, const DomainFiles& domain, double* toMicrowatts,
                 bool* abstract, std::string* error) {
  if (domain.flags) {
    const auto flags = parseNumbers(*domain.flags);
    if (!flags || flags->size() != 1) {
      *error = name + "/flags: not a number: " + quoted(*domain.flags);
      return false;
    }
    *abstract = ((*flags)[0] & kFlagMicrowatts) == 0 || ((*flags)[0] & kFlagArtificial) != 0;
    *toMicrowatts = 1;
    return true;
  }
  if (domain.units) {  // kernels between the first layout and the flags: mW or bogoWatts
    const std::string units = trimmed(*domain.units);
    if (units != "milliWatts" && units != "bogoWatts") {
      *error = name + "/units: unknown unit " + quoted(*domain.units);
      return false;
    }
    *abstract = units == "bogoWatts";
    *toMicrowatts = 1000;
    return true;
  }
  *abstract = false;  // the first layout, before either file: mW
  *toMicrowatts = 1000;
  return true;
}

}  // namespace

RawModelResult parseEnergyModel(const FileTree& files) {
  std::map<std::string, DomainFiles> domains;
  for (const auto& [path, text] : files) {
    const size_t slash = path.find('/');
    if (slash == std::string::npos || slash == 0) continue;
    const std::string domain = path.substr(0, slash);
    const std::string rest = path.substr(slash + 1);
    DomainFiles& d = domains[domain];
    if (rest == "cpus") {
      d.cpus = text;
    } else if (rest == "flags") {
      d.flags = text;
    } else if (rest == "units") {
      d.units = text;
    } else {
      const size_t stateEnd = rest.find('/');
      if (stateEnd == std::string::npos || !isStateName(rest.substr(0, stateEnd))) continue;
      auto& state = d.states[rest.substr(0, stateEnd)];
      const std::string file = rest.substr(stateEnd + 1);
      if (file == "frequency" || file == "power") state[file] = text;
    }
  }

  RawModel model;
  bool anyAbstract = false;
  for (const auto& [name, d] : domains) {
    if (!d.cpus) continue;  // a device that is not a CPU, such as a GPU
    RawDomain domain;
    domain.label = name;
    const auto cpus = parseCpuList(*d.cpus);
    if (!cpus || cpus->empty()) return failure(name + "/cpus: not a CPU list: " + quoted(*d.cpus));
    domain.cpus.emplace(cpus->begin(), cpus->end());
    double toMicrowatts = 1;
    bool abstract = false;
    std::string error;
    if (!domainScale(name, d, &toMicrowatts, &abstract, &error)) return failure(error);
    anyAbstract = anyAbstract || abstract;
    if (d.states.empty()) {
      return failure(name + ": no performance state (no ps:<kHz> or cs:<kHz> directory)");
    }
    std::map<uint64_t, std::string> stateOf;  // frequency -> the state that gave it
    for (const auto& [state, stateFiles] : d.states) {
      const std::string where = StringPrintf("%s/%s", name.c_str(), state.c_str());
      const auto frequencyText = stateFiles.find("frequency");
      const auto powerText = stateFiles.find("power");
      if (frequencyText == stateFiles.end()) return failure(where + ": no frequency file");
      if (powerText == stateFiles.end()) return failure(where + ": no power file");
      uint64_t khz = 0;
      if (!parseDecimal(trimmed(frequencyText->second), &khz, UINT64_MAX) || khz == 0) {
        return failure(where + "/frequency: not a frequency: " + quoted(frequencyText->second));
      }
      bool negative = false;
      const std::optional<double> power = parsePowerNumber(powerText->second, &negative);
      if (!power) {
        return failure(where + "/power: " + (negative ? "negative power " : "not a number: ") +
                       quoted(powerText->second));
      }
      if (const auto seen = stateOf.find(khz); seen != stateOf.end()) {
        return failure(StringPrintf("%s: duplicate frequency %llu kHz (%s and %s)", name.c_str(),
                                    static_cast<unsigned long long>(khz), seen->second.c_str(),
                                    state.c_str()));
      }
      stateOf[khz] = state;
      domain.rates[khz] = *power * toMicrowatts;  // µW is µJ per second
    }
    model.domains.push_back(std::move(domain));
  }
  if (model.domains.empty()) {
    return failure("no CPU performance domain (no directory with a cpus file)");
  }
  model.unit = anyAbstract ? EnergyUnit::kAbstract : EnergyUnit::kMicrojoules;
  return {std::move(model), ""};
}

namespace {

// The names in `dir` with their kinds; false when it cannot be listed.
bool listDir(const std::string& dir, std::vector<std::pair<std::string, bool>>* entries) {
  const std::unique_ptr<DIR, int (*)(DIR*)> handle(opendir(dir.c_str()), closedir);
  if (!handle) return false;
  while (const dirent* entry = readdir(handle.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    entries->emplace_back(name, entry->d_type == DT_DIR);
  }
  return true;
}

// Adds `dir`/`name` under `key` when the file exists; false when it exists but cannot be read.
bool readIfPresent(const std::string& dir, const std::string& name, const std::string& key,
                   FileTree* files, std::string* error) {
  const std::string path = dir + "/" + name;
  std::string text;
  if (android::base::ReadFileToString(path, &text)) {
    (*files)[key] = text;
    return true;
  }
  if (errno == ENOENT) return true;
  *error = "cannot read " + path + ": " + strerror(errno);
  return false;
}

}  // namespace

bool readEnergyModelTree(const std::string& path, FileTree* files, std::string* error) {
  std::vector<std::pair<std::string, bool>> domains;
  if (!listDir(path, &domains)) {
    *error = std::string("cannot list the directory: ") + strerror(errno);
    return false;
  }
  for (const auto& [domain, isDir] : domains) {
    if (!isDir) continue;
    const std::string dir = StringPrintf("%s/%s", path.c_str(), domain.c_str());
    for (const char* name : {"cpus", "flags", "units"}) {
      if (!readIfPresent(dir, name, domain + "/" + name, files, error)) return false;
    }
    std::vector<std::pair<std::string, bool>> states;
    if (!listDir(dir, &states)) {
      *error = "cannot list " + dir + ": " + strerror(errno);
      return false;
    }
    for (const auto& [state, stateIsDir] : states) {
      if (!stateIsDir || !isStateName(state)) continue;
      const std::string key = StringPrintf("%s/%s/", domain.c_str(), state.c_str());
      (*files)[key] = "";
      for (const char* name : {"frequency", "power"}) {
        const std::string stateDir = StringPrintf("%s/%s", dir.c_str(), state.c_str());
        if (!readIfPresent(stateDir, name, key + name, files, error)) return false;
      }
    }
  }
  return true;
}

}  // namespace zelkora
}  // namespace com
