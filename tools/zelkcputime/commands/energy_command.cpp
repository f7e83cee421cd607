// show energy: the counted times under a power model.
#include <algorithm>

#include "commands/commands.h"
#include "machine/environment.h"
#include "machine/power_model_file.h"
#include "views/energy_view.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr size_t kDefaultTextRows = 20;

std::string checkWords(const Options& options) {
  const std::vector<std::string>& w = options.words;
  const std::vector<std::string> views = {"total", "processes", "kthreads", "process", "kthread"};
  std::string usage =
      "show energy takes nothing, or one of total, processes, kthreads, process NAME, kthread "
      "NAME";
  if (w.size() == 2) return options.flag ? "--flag applies to show energy process" : "";
  if (std::find(views.begin(), views.end(), w[2]) == views.end()) return usage;
  const bool named = w[2] == "process" || w[2] == "kthread";
  if (w.size() != (named ? 4u : 3u)) return usage;
  if (options.flag && w[2] != "process") return "--flag applies to show energy process";
  return "";
}

std::optional<std::vector<EnergyRow>> tableRows(const lib::PowerModel& model, bool kthreads,
                                                size_t limit, std::string* error) {
  const auto table = kthreads ? lib::getKthreadCpuFreqTimes() : lib::getProcessCpuFreqTimes();
  const char* query = kthreads ? "getKthreadCpuFreqTimes" : "getProcessCpuFreqTimes";
  if (!table) {
    *error = std::string(query) + " failed (run with -v for the library's messages)";
    return std::nullopt;
  }
  const auto energies = lib::estimateEnergy(model, *table);
  if (!energies) {
    *error = std::string(query) + " returned times of another shape than the frequency table";
    return std::nullopt;
  }
  return sortedEnergies(*energies, limit);
}

}  // namespace

bool optionalModel(const Options& options, std::optional<lib::PowerModel>* model, std::string* note,
                   std::string* error) {
  lib::PowerModelResult loaded = loadModelForTool(options.model, options.voltage);
  if (loaded.model) {
    *model = std::move(loaded.model);
    return true;
  }
  if (!options.model.empty()) {
    *error = loaded.error;
    return false;
  }
  // The machine's own model is optional: a machine without one, or a synthetic policy that it
  // does not fit, still gets the time tables.
  *note = "no energy table: " + loaded.error;
  return true;
}

int runShowEnergy(const Options& options) {
  if (std::string usage = checkWords(options); !usage.empty()) return usageError(usage);
  if (std::string message = checkReady(); !message.empty()) return fail(message);
  const lib::PowerModelResult loaded = loadModelForTool(options.model, options.voltage);
  if (!loaded.model) return fail(loaded.error);
  const lib::PowerModel& model = *loaded.model;

  const std::string view = options.words.size() > 2 ? options.words[2] : "";
  const bool textDefault = options.format == Format::kText && options.given.count("--limit") == 0;
  const size_t limit = textDefault ? kDefaultTextRows : options.limit;
  EnergyView result{model, {}, {}, {}, {}, false};
  std::string error;
  if (view.empty() || view == "total") {
    const auto times = lib::getTotalCpuFreqTimes();
    if (!times) {
      return fail(
          "getTotalCpuFreqTimes returned nothing: nothing has been counted since the load or the "
          "last reset (is `zelkcputime start` running?), or the map could not be read");
    }
    result.total = lib::estimateEnergy(model, *times);
    if (!result.total)
      return fail("the whole-system times do not have the frequency table's shape");
  }
  if (view.empty() || view == "processes") {
    result.processes = tableRows(model, /*kthreads=*/false, limit, &error);
    if (!result.processes) return fail(error);
  }
  if (view.empty() || view == "kthreads") {
    result.kthreads = tableRows(model, /*kthreads=*/true, limit, &error);
    if (!result.kthreads) return fail(error);
  }
  if (view == "process" || view == "kthread") {
    result.kthread = view == "kthread";
    const std::string& name = options.words[3];
    const uint64_t flag = result.kthread || options.flag ? 1 : 0;
    const auto times = result.kthread ? lib::getCpuFreqTimesFromKthread(name)
                                      : lib::getCpuFreqTimesFromProcess(name, flag != 0);
    if (!times) {
      return fail(std::string(result.kthread ? "getCpuFreqTimesFromKthread"
                                             : "getCpuFreqTimesFromProcess") +
                  " returned nothing: nothing counted yet, or the map could not be read");
    }
    const auto estimate = lib::estimateEnergy(model, *times);
    if (!estimate) return fail("the task's times do not have the frequency table's shape");
    result.task = EnergyRow{name, flag, *estimate};
  }
  switch (options.format) {
    case Format::kJson: {
      JsonWriter json;
      writeEnergyView(json, result);
      printOut(json.text() + "\n");
      break;
    }
    case Format::kCsv:
      printOut(energyCsv(result));
      break;
    case Format::kText:
      printOut(energyText(result));
      break;
  }
  return kExitOk;
}

}  // namespace zelk::cli
