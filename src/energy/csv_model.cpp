// A measured model: `policy,freq_khz,power_uw` rows, the policy as its number or "policyN".
// Blank lines and lines starting with '#' are skipped, and so is a first row that is this header.
#include <android-base/strings.h>

#include "core/decimal.h"
#include "energy/raw_model.h"

namespace com {
namespace zelkora {
namespace {

constexpr char kHeader[] = "policy,freq_khz,power_uw";

RawModelResult failure(size_t line, const std::string& error) {
  return {std::nullopt, oneLine("line " + std::to_string(line) + ": " + error)};
}

}  // namespace

RawModelResult parseCsvModel(const std::string& text) {
  std::map<uint64_t, RawDomain> byPolicy;
  bool firstRow = true;
  size_t lineNumber = 0;
  for (const std::string& rawLine : android::base::Split(text, "\n")) {
    ++lineNumber;
    const std::string line = android::base::Trim(rawLine);
    if (line.empty() || line[0] == '#') continue;
    const bool isFirst = firstRow;
    firstRow = false;
    if (isFirst && line == kHeader) continue;
    std::vector<std::string> fields = android::base::Split(line, ",");
    if (fields.size() != 3) {
      return failure(lineNumber, std::to_string(fields.size()) + " fields, expected " + kHeader);
    }
    for (std::string& field : fields) field = android::base::Trim(field);
    std::string policyText = fields[0];
    if (policyText.rfind("policy", 0) == 0) policyText.erase(0, 6);
    uint64_t policy = 0;
    if (!parseDecimal(policyText, &policy, UINT64_MAX)) {
      return failure(lineNumber, "not a policy: " + quoted(fields[0]));
    }
    uint64_t khz = 0;
    if (!parseDecimal(fields[1], &khz, UINT64_MAX) || khz == 0) {
      return failure(lineNumber, "not a frequency in kHz: " + quoted(fields[1]));
    }
    bool negative = false;
    const std::optional<double> power = parsePowerNumber(fields[2], &negative);
    if (!power) {
      return failure(lineNumber,
                     (negative ? "negative power " : "not a power in µW: ") + quoted(fields[2]));
    }
    RawDomain& domain = byPolicy[policy];
    domain.label = "policy" + std::to_string(policy);
    domain.policy = policy;
    if (!domain.rates.emplace(khz, *power).second) {  // µW is µJ per second
      return failure(lineNumber,
                     "duplicate frequency " + std::to_string(khz) + " kHz for " + domain.label);
    }
  }
  if (byPolicy.empty()) return {std::nullopt, "no rows"};
  RawModel model;
  model.unit = EnergyUnit::kMicrojoules;
  for (auto& [policy, domain] : byPolicy) model.domains.push_back(std::move(domain));
  return {std::move(model), ""};
}

}  // namespace zelkora
}  // namespace com
