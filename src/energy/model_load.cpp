// Loading a model from a path: which format, reading it, and matching it to the policies.
#include <android-base/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "core/state.h"
#include "energy/raw_model.h"

namespace com {
namespace zelkora {
namespace {

PowerModelResult failure(const std::string& path, const std::string& error) {
  return {std::nullopt, oneLine(path + ": " + error)};
}

}  // namespace

PowerModelResult loadPowerModel(const std::string& path, const PolicyLayout& policies,
                                std::optional<double> voltage) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return failure(path, strerror(errno));
  RawModelResult raw;
  if (S_ISDIR(st.st_mode)) {
    if (voltage) return failure(path, "a voltage applies to a power profile only");
    FileTree files;
    std::string error;
    if (!readEnergyModelTree(path, &files, &error)) return failure(path, error);
    raw = parseEnergyModel(files);
  } else {
    std::string text;
    if (!android::base::ReadFileToString(path, &text)) {
      return failure(path, std::string("cannot read: ") + strerror(errno));
    }
    const size_t first = text.find_first_not_of(" \t\r\n");
    const bool xmlName = path.size() >= 4 && path.compare(path.size() - 4, 4, ".xml") == 0;
    if (xmlName || (first != std::string::npos && text[first] == '<')) {
      raw = parsePowerProfile(text, voltage);
    } else {
      if (voltage) return failure(path, "a voltage applies to a power profile only");
      raw = parseCsvModel(text);
    }
  }
  if (!raw.model) return failure(path, raw.error);
  MatchResult matched = matchModel(*raw.model, policies, path);
  if (!matched.model) return failure(path, matched.error);
  return {std::move(matched.model), ""};
}

PowerModelResult loadPowerModel(const std::string& path, std::optional<double> voltage) {
  if (!ensureGlobals()) {
    return {std::nullopt, "the library could not read this machine's cpufreq policies"};
  }
  // Written once before the ready flag and read-only since.
  return loadPowerModel(path, PolicyLayout{gFreqTable, gRelatedCpus}, voltage);
}

}  // namespace zelkora
}  // namespace com
