#include "machine/power_model_file.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace zelk::cli {
namespace {

constexpr char kDebugfs[] = "/sys/kernel/debug";
constexpr long kDebugfsMagic = 0x64626720;

}  // namespace

com::zelkora::PowerModelResult loadModelForTool(const std::string& path,
                                                std::optional<double> voltage) {
  const std::string model = path.empty() ? kDefaultEnergyModel : path;
  struct stat st;
  if (path.empty() && stat(model.c_str(), &st) != 0) {
    struct statfs fs;
    if (statfs(kDebugfs, &fs) != 0 || fs.f_type != kDebugfsMagic) {
      mount("debugfs", kDebugfs, "debugfs", 0, nullptr);  // a failure shows as the model missing
    }
    if (stat(model.c_str(), &st) != 0) {
      return {std::nullopt, model + ": this kernel has no Energy Model: give --model PATH (an " +
                                "Energy Model directory, a power_profile.xml or a CSV file)"};
    }
  }
  return com::zelkora::loadPowerModel(model, voltage);
}

}  // namespace zelk::cli
