#include "serve/exposition.h"

#include "serve/collectors.h"

namespace zelk::cli {

const std::vector<Collector>& collectors() {
  static const std::vector<Collector> kCollectors = {
      collectEnergy,     collectSystemTimes, collectTaskTimes, collectCgroupTimes,
      collectClassTimes, collectFrequencies, collectMapFill,   collectExporterHealth};
  return kCollectors;
}

std::string renderExposition(const ExpositionInput& input, ExpositionFormat format) {
  std::vector<Family> families;
  for (const Collector collect : collectors()) collect(input, &families);
  std::string out;
  for (const Family& family : families) family.render(format, &out);
  if (format == ExpositionFormat::kOpenMetrics) out += "# EOF\n";
  return out;
}

}  // namespace zelk::cli
