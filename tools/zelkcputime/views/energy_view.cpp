#include "views/energy_view.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>

#include "commands/commands.h"
#include "machine/environment.h"
#include "views/csv_writer.h"
#include "views/text_table.h"
#include "views/units.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr size_t kDefaultTextRows = 20;
constexpr char kDebugfs[] = "/sys/kernel/debug";
constexpr long kDebugfsMagic = 0x64626720;
constexpr char kEnergyCsvHeader[] = "table,name,flag,energy,unit,unmodelled_ns\n";

std::string energyText(const lib::EnergyEstimate& e) {
  std::string text = std::to_string(e.energy) + " " + energyUnitText(e.unit);
  if (e.unit == lib::EnergyUnit::kMicrojoules) {
    text += " (" + formatSeconds(e.energy * 1000) + " J)";  // nJ shown as J, as ns as s
  }
  if (e.unmodelledNs > 0) text += ", " + formatSeconds(e.unmodelledNs) + " s unmodelled";
  return text;
}

std::string modelLine(const lib::PowerModel& model) {
  std::string line = "Power model: " + model.source + ", in " + energyUnitText(model.unit);
  if (model.unit == lib::EnergyUnit::kAbstract) {
    line += " (an abstract scale: relative cost, not joules)";
  }
  return line + "\n";
}

std::string csvEnergy(const std::string& table, const std::string& name, const std::string& flag,
                      const lib::EnergyEstimate& e) {
  return csvRow({table, name, flag, std::to_string(e.energy), lib::energyUnitName(e.unit),
                 std::to_string(e.unmodelledNs)});
}

std::string csvRows(const std::string& table, const std::vector<EnergyRow>& rows) {
  std::string text;
  for (const EnergyRow& row : rows) {
    text += csvEnergy(table, row.name, std::to_string(row.flag), row.estimate);
  }
  return text;
}

// What the view shows, once computed.
struct EnergyView {
  const lib::PowerModel& model;
  std::optional<lib::EnergyEstimate> total;
  std::optional<std::vector<EnergyRow>> processes, kthreads;
  std::optional<EnergyRow> task;
  bool kthread = false;  // the task's kind
};

std::string text(const EnergyView& v) {
  std::string out = modelLine(v.model);
  if (v.total) out += "Whole system: " + energyText(*v.total) + "\n";
  const uint64_t whole = v.total ? v.total->energy : 0;
  if (v.processes) {
    out += "\nProcesses by energy:\n" +
           textEnergyTable(*v.processes, /*withFlag=*/true, v.model.unit, whole);
  }
  if (v.kthreads) {
    out += "\nKernel threads by energy:\n" +
           textEnergyTable(*v.kthreads, /*withFlag=*/false, v.model.unit, whole);
  }
  if (v.task) {
    const std::string title = v.kthread
                                  ? "kernel thread " + printableName(v.task->name)
                                  : "process " + printableName(v.task->name) +
                                        (v.task->flag != 0 ? " (foreground)" : " (background)");
    out += title + ": " + energyText(v.task->estimate) + "\n";
  }
  return out;
}

void writeView(JsonWriter& json, const EnergyView& v) {
  json.beginObject().key("unit").value(lib::energyUnitName(v.model.unit));
  json.key("model").value(v.model.source);
  if (v.total) {
    json.key("total");
    writeEnergy(json, *v.total);
  }
  if (v.processes) {
    json.key("processes");
    writeEnergyRows(json, *v.processes);
  }
  if (v.kthreads) {
    json.key("kthreads");
    writeEnergyRows(json, *v.kthreads);
  }
  if (v.task) {
    json.key(v.kthread ? "kthread" : "process");
    writeEnergyRows(json, {*v.task});
  }
  json.endObject();
}

std::string json(const EnergyView& v) {
  JsonWriter json;
  writeView(json, v);
  return json.text() + "\n";
}

// The whole system, processes and kernel threads; empty when a shape differs from the model's.
std::optional<EnergyView> tablesView(const lib::PowerModel& model,
                                     const lib::TimeInStateVector& total,
                                     const lib::TimeInStateTable& processes,
                                     const lib::TimeInStateTable& kthreads, size_t limit) {
  EnergyView view{model, lib::estimateEnergy(model, total), {}, {}, {}, false};
  const auto p = lib::estimateEnergy(model, processes);
  const auto k = lib::estimateEnergy(model, kthreads);
  if (!view.total || !p || !k) return std::nullopt;
  view.processes = sortedEnergies(*p, limit);
  view.kthreads = sortedEnergies(*k, limit);
  return view;
}

std::string csv(const EnergyView& v) {
  std::string out = kEnergyCsvHeader;
  if (v.total) out += csvEnergy("total", "", "", *v.total);
  if (v.processes) out += csvRows("process", *v.processes);
  if (v.kthreads) out += csvRows("kthread", *v.kthreads);
  if (v.task) out += csvRows(v.kthread ? "kthread" : "process", {*v.task});
  return out;
}

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

std::string energyUnitText(lib::EnergyUnit unit) {
  switch (unit) {
    case lib::EnergyUnit::kMicrojoules:
      return "uJ";
    case lib::EnergyUnit::kMicroampHours:
      return "uAh";
    case lib::EnergyUnit::kAbstract:
      return "abstract units";
  }
  return "abstract units";
}

std::vector<EnergyRow> sortedEnergies(const lib::EnergyTable& table, size_t limit) {
  std::vector<EnergyRow> rows;
  for (const auto& [key, estimate] : table) rows.push_back({key.comm, key.flag, estimate});
  std::sort(rows.begin(), rows.end(), [](const EnergyRow& a, const EnergyRow& b) {
    if (a.estimate.energy != b.estimate.energy) return a.estimate.energy > b.estimate.energy;
    if (a.estimate.unmodelledNs != b.estimate.unmodelledNs) {
      return a.estimate.unmodelledNs > b.estimate.unmodelledNs;
    }
    return a.name != b.name ? a.name < b.name : a.flag < b.flag;
  });
  if (limit != 0 && rows.size() > limit) rows.resize(limit);
  return rows;
}

std::string textEnergyTable(const std::vector<EnergyRow>& rows, bool withFlag, lib::EnergyUnit unit,
                            uint64_t whole) {
  const bool unmodelled = std::any_of(
      rows.begin(), rows.end(), [](const EnergyRow& row) { return row.estimate.unmodelledNs > 0; });
  std::vector<Column> columns = {{"name", false}};
  if (withFlag) columns.push_back({"fg", false});
  columns.push_back(
      {(unit == lib::EnergyUnit::kMicroampHours ? "charge " : "energy ") + energyUnitText(unit),
       true});
  columns.push_back({"share %", true});
  if (unmodelled) columns.push_back({"unmodelled s", true});
  std::vector<std::vector<std::string>> cells;
  for (const EnergyRow& row : rows) {
    std::vector<std::string> line = {printableName(row.name)};
    if (withFlag) line.push_back(std::to_string(row.flag));
    line.push_back(std::to_string(row.estimate.energy));
    line.push_back(formatPercent(row.estimate.energy, whole));
    if (unmodelled) line.push_back(formatSeconds(row.estimate.unmodelledNs));
    cells.push_back(std::move(line));
  }
  return renderTable(columns, cells);
}

void writeEnergy(JsonWriter& json, const lib::EnergyEstimate& estimate) {
  json.beginObject().key("energy").value(estimate.energy);
  json.key("unmodelled_ns").value(estimate.unmodelledNs).endObject();
}

void writeEnergyRows(JsonWriter& json, const std::vector<EnergyRow>& rows) {
  json.beginArray();
  for (const EnergyRow& row : rows) {
    json.beginObject().key("name").value(row.name).key("flag").value(row.flag);
    json.key("energy").value(row.estimate.energy);
    json.key("unmodelled_ns").value(row.estimate.unmodelledNs).endObject();
  }
  json.endArray();
}

lib::PowerModelResult loadModelForTool(const std::string& path, std::optional<double> voltage) {
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
  return lib::loadPowerModel(model, voltage);
}

bool demoModel(const Options& options, std::optional<lib::PowerModel>* model, std::string* note,
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

std::string demoEnergyText(const lib::PowerModel& model, const lib::TimeInStateVector& total,
                           const lib::TimeInStateTable& processes,
                           const lib::TimeInStateTable& kthreads, size_t limit) {
  const auto view = tablesView(model, total, processes, kthreads, limit);
  return view ? "\n" + text(*view) : "\nno energy table: the times do not fit the power model\n";
}

void writeDemoEnergy(JsonWriter& json, const lib::PowerModel& model,
                     const lib::TimeInStateVector& total, const lib::TimeInStateTable& processes,
                     const lib::TimeInStateTable& kthreads, size_t limit) {
  const auto view = tablesView(model, total, processes, kthreads, limit);
  if (view) {
    writeView(json, *view);
  } else {
    json.null();
  }
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
    case Format::kJson:
      printOut(json(result));
      break;
    case Format::kCsv:
      printOut(csv(result));
      break;
    case Format::kText:
      printOut(text(result));
      break;
  }
  return kExitOk;
}

}  // namespace zelk::cli
