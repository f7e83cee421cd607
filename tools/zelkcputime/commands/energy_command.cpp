// show energy: the counted times under a power model.
#include <algorithm>
#include <regex>

#include "commands/commands.h"
#include "commands/library_log.h"
#include "machine/environment.h"
#include "machine/power_model_file.h"
#include "model/energy.h"
#include "model/snapshot.h"
#include "views/energy_view.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr size_t kDefaultTextRows = 20;

std::string checkWords(const Options& options) {
  const std::vector<std::string>& w = options.words;
  const std::vector<std::string> views = {"total",   "processes", "kthreads",
                                          "cgroups", "process",   "kthread"};
  std::string usage =
      "show energy takes nothing, or one of total, processes, kthreads, cgroups, process NAME, "
      "kthread NAME";
  const std::string view = w.size() > 2 ? w[2] : "";
  if (!view.empty() && std::find(views.begin(), views.end(), view) == views.end()) return usage;
  const bool named = view == "process" || view == "kthread";
  if (w.size() != (view.empty() ? 2u : named ? 4u : 3u)) return usage;
  for (const char* option : {"--depth", "--match"}) {
    if (options.given.count(option) != 0 && view != "cgroups") {
      return std::string(option) + " applies to show energy cgroups";
    }
  }
  return checkClassOptions(options, view, "show energy");
}

// The tables `view` shows: all three without one, none for a single task.
unsigned partsOf(const std::string& view) {
  if (view.empty()) return kTotalPart | kProcessesPart | kKthreadsPart;
  if (view == "total") return kTotalPart;
  if (view == "processes") return kProcessesPart;
  if (view == "kthreads") return kKthreadsPart;
  if (view == "cgroups") return kCgroupsPart;
  return 0;
}

// Why a cgroup table may be empty or hold the root alone, to stderr.
void tellCgroupNotes() {
  if (!hasCgroupMap()) {
    tellNote(
        "zelkcputime: note: the loaded object has no cgroup map (an older zelkcputime loaded "
        "it): no cgroup has time until `zelkcputime load --replace`");
  }
  if (std::string note = cgroupV2Note(); !note.empty()) tellNote("zelkcputime: note: " + note);
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
  SnapshotRequest request;
  request.parts = partsOf(view);
  const TakenSnapshot taken = takeSnapshot(request, readingQueries());
  tellUnsettled(taken.unsettled);
  if (!taken.snapshot) return fail(taken.error);
  if (view == "cgroups" && options.format == Format::kText) tellCgroupNotes();
  std::optional<std::regex> match;
  if (!options.cgroupMatch.empty()) {
    match.emplace(options.cgroupMatch, std::regex::ECMAScript | std::regex::nosubs);
  }
  EnergyResult tables =
      energyOf(model, *taken.snapshot, limit,
               options.format == Format::kText ? OverflowRow::kWithTime : OverflowRow::kAlways,
               {options.cgroupDepth, match ? &*match : nullptr});
  if (!tables.energy) return fail(tables.error);
  EnergyView result{model, std::move(*tables.energy), {}, false};
  if (view == "process" || view == "kthread") {
    result.kthread = view == "kthread";
    const TakenTask taken =
        takeTask({result.kthread, options.words[3], processClass(options)}, readingQueries());
    tellUnsettled(taken.unsettled);
    if (!taken.task) return fail(taken.error);
    result.task = taskEnergy(model, *taken.task);
    if (!result.task) return fail("the task's times do not have the frequency table's shape");
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
