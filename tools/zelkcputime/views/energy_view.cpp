#include "views/energy_view.h"

#include <algorithm>

#include "views/csv_writer.h"
#include "views/text_table.h"
#include "views/text_views.h"
#include "views/units.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr char kEnergyCsvHeader[] = "table,name,flag,energy,unit,unmodelled_ns\n";

std::string energyText(const lib::EnergyEstimate& e) {
  std::string text = std::to_string(e.energy) + " " + unitInfo(e.unit).text;
  if (unitInfo(e.unit).microjoules) {
    text += " (" + formatSeconds(e.energy * 1000) + " J)";  // nJ shown as J, as ns as s
  }
  if (e.unmodelledNs > 0) text += ", " + formatSeconds(e.unmodelledNs) + " s unmodelled";
  return text;
}

std::string modelLine(const lib::PowerModel& model) {
  std::string line = "Power model: " + model.source + ", in " + unitInfo(model.unit).text;
  if (unitInfo(model.unit).relative) {
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

// `names` holds each row's first cells, under `columns`.
std::string estimateTable(std::vector<Column> columns, std::vector<std::vector<std::string>> names,
                          const std::vector<lib::EnergyEstimate>& estimates, lib::EnergyUnit unit,
                          uint64_t whole) {
  const bool unmodelled =
      std::any_of(estimates.begin(), estimates.end(),
                  [](const lib::EnergyEstimate& estimate) { return estimate.unmodelledNs > 0; });
  columns.push_back({std::string(unitInfo(unit).quantity) + " " + unitInfo(unit).text, true});
  columns.push_back({"share %", true});
  if (unmodelled) columns.push_back({"unmodelled s", true});
  for (size_t i = 0; i < names.size(); ++i) {
    names[i].push_back(std::to_string(estimates[i].energy));
    names[i].push_back(formatPercent(estimates[i].energy, whole));
    if (unmodelled) names[i].push_back(formatSeconds(estimates[i].unmodelledNs));
  }
  return renderTable(columns, names);
}

std::string cgroupTable(const CgroupEnergies& energies, lib::EnergyUnit unit) {
  std::vector<std::vector<std::string>> names;
  std::vector<lib::EnergyEstimate> estimates;
  for (const CgroupEnergyRow& row : energies.rows) {
    names.push_back({printableName(row.path)});
    estimates.push_back(row.estimate);
  }
  return estimateTable({{"cgroup", false}}, std::move(names), estimates, unit, energies.whole);
}

}  // namespace

std::string energyText(const EnergyView& v) {
  std::string out = modelLine(v.model);
  const SnapshotEnergy& t = v.tables;
  if (t.total) out += "Whole system: " + energyText(*t.total) + "\n";
  const uint64_t whole = t.total ? t.total->energy : 0;
  if (t.processes) {
    out += "\nProcesses by energy:\n" +
           textEnergyTable(*t.processes, /*withFlag=*/true, v.model.unit, whole);
  }
  if (t.kthreads) {
    out += "\nKernel threads by energy:\n" +
           textEnergyTable(*t.kthreads, /*withFlag=*/false, v.model.unit, whole);
  }
  if (t.cgroups) {
    // Shares are of every cgroup's energy, which the rows (with their descendants) overlap.
    const std::string levels =
        t.cgroups->depth
            ? ", deeper ones folded in at " + std::to_string(*t.cgroups->depth) + " below the root"
            : "";
    out += "\nCgroups by energy, each with its descendants'" + levels + ":\n" +
           cgroupTable(*t.cgroups, v.model.unit);
  }
  if (v.task) {
    out += taskTitle(v.kthread, v.task->name, v.task->flag) + ": " + energyText(v.task->estimate) +
           "\n";
  }
  return out;
}

void writeEnergyView(JsonWriter& json, const EnergyView& v) {
  json.beginObject().key("unit").value(lib::energyUnitName(v.model.unit));
  json.key("model").value(v.model.source);
  const SnapshotEnergy& t = v.tables;
  if (t.total) {
    json.key("total");
    writeEnergy(json, *t.total);
  }
  if (t.processes) {
    json.key("processes");
    writeEnergyRows(json, *t.processes);
  }
  if (t.kthreads) {
    json.key("kthreads");
    writeEnergyRows(json, *t.kthreads);
  }
  if (t.cgroups) {
    // As show cgroups says what its rows hold.
    json.key("includes_descendants").value(true).key("depth");
    t.cgroups->depth ? json.value(uint64_t{*t.cgroups->depth}) : json.null();
    json.key("cgroups").beginArray();
    for (const CgroupEnergyRow& row : t.cgroups->rows) {
      json.beginObject().key("path").value(row.path);
      for (const auto& [key, value] : {std::pair{"unit", &row.workload.unit},
                                       std::pair{"container_id", &row.workload.containerId},
                                       std::pair{"pod_uid", &row.workload.podUid}}) {
        if (!value->empty()) json.key(key).value(*value);
      }
      json.key("energy").value(row.estimate.energy);
      json.key("unmodelled_ns").value(row.estimate.unmodelledNs).endObject();
    }
    json.endArray();
  }
  if (v.task) {
    // One object, as show process gives its task.
    json.key(v.kthread ? "kthread" : "process").beginObject().key("name").value(v.task->name);
    if (v.task->flag) json.key("flag").value(*v.task->flag);
    json.key("energy").value(v.task->estimate.energy);
    json.key("unmodelled_ns").value(v.task->estimate.unmodelledNs).endObject();
  }
  json.endObject();
}

std::string energyCsv(const EnergyView& v) {
  std::string out = kEnergyCsvHeader;
  const SnapshotEnergy& t = v.tables;
  if (t.total) out += csvEnergy("total", "", "", *t.total);
  if (t.processes) out += csvRows("process", *t.processes);
  if (t.kthreads) out += csvRows("kthread", *t.kthreads);
  if (t.cgroups) {
    // The path names it; a cgroup has no flag, as the total has none.
    for (const CgroupEnergyRow& row : t.cgroups->rows) {
      out += csvEnergy("cgroup", row.path, "", row.estimate);
    }
  }
  if (v.task) {
    out += csvEnergy(v.kthread ? "kthread" : "process", v.task->name,
                     v.task->flag ? std::to_string(*v.task->flag) : "", v.task->estimate);
  }
  return out;
}

std::string textEnergyTable(const std::vector<EnergyRow>& rows, bool withFlag, lib::EnergyUnit unit,
                            uint64_t whole) {
  std::vector<std::vector<std::string>> names;
  std::vector<lib::EnergyEstimate> estimates;
  for (const EnergyRow& row : rows) {
    names.push_back({printableName(row.name)});
    if (withFlag) names.back().push_back(std::to_string(row.flag));
    estimates.push_back(row.estimate);
  }
  return estimateTable(withFlag ? std::vector<Column>{{"name", false}, {"fg", false}}
                                : std::vector<Column>{{"name", false}},
                       std::move(names), estimates, unit, whole);
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

}  // namespace zelk::cli
