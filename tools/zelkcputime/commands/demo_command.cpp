// demo: the tool's whole job on the real machine, leaving nothing behind.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "commands/commands.h"
#include "commands/library_log.h"
#include "machine/demo_setup.h"
#include "model/energy.h"
#include "model/snapshot.h"
#include "views/csv_views.h"
#include "views/energy_view.h"
#include "views/frequency_source.h"
#include "views/json_views.h"
#include "views/progress_bar.h"
#include "views/text_views.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr size_t kDefaultTextRows = 10;

// For the progress line only: a missed reading shows 0 once rather than holding the line up.
uint64_t countedNs() {
  SnapshotRequest request;
  request.parts = kTotalPart;
  request.attempts = 1;
  const TakenSnapshot taken = takeSnapshot(request);
  tellUnsettled(taken.unsettled);
  return taken.snapshot ? sumTimes(taken.snapshot->total) : 0;
}

// Redraws the line in place on a terminal; elsewhere writes only the last one.
void sample(unsigned seconds) {
  const bool terminal = isatty(STDERR_FILENO) != 0;
  const auto start = std::chrono::steady_clock::now();
  const uint64_t totalMs = seconds * 1000ull;
  uint64_t elapsedMs = 0;
  while (elapsedMs < totalMs) {
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::min<uint64_t>(100, totalMs - elapsedMs)));
    elapsedMs = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now() - start)
                                          .count());
    if (terminal) fprintf(stderr, "\r%s", progressLine(elapsedMs, totalMs, countedNs()).c_str());
  }
  fprintf(stderr, "%s%s\n", terminal ? "\r" : "",
          progressLine(elapsedMs, totalMs, countedNs()).c_str());
}

std::string heading(const std::string& title, size_t shown, size_t all) {
  return "\n" + title + " (" + std::to_string(shown) + " of " + std::to_string(all) + "):\n";
}

// What the sampler cost, so that its users can weigh it against what it buys.
std::string samplerText(const Options& options, const SamplerStats& stats) {
  char text[160];
  snprintf(text, sizeof(text),
           "The frequency sampler woke %llu times in %u s and used %.2f ms of CPU (%llu "
           "readings skipped).\n",
           static_cast<unsigned long long>(stats.wakeups), options.seconds,
           static_cast<double>(stats.cpuNs) / 1e6, static_cast<unsigned long long>(stats.skipped));
  return text;
}

std::string demoText(const Options& options, const DemoMachine& machine, const Snapshot& r,
                     size_t limit, const std::optional<SamplerStats>& sampler) {
  // An empty overflow entry is left out here, kept in JSON and CSV.
  const OverflowRow overflow = OverflowRow::kWithTime;
  const auto processes = sortedTasks(r.processes, limit, overflow);
  const auto kthreads = sortedTasks(r.kthreads, limit, overflow);
  const auto classes = ranClassTimes(r.processes, r.top, r.bg, limit);
  const size_t classNames = ranClassTimes(r.processes, r.top, r.bg, 0).size();
  return "Sampled this machine for " + std::to_string(options.seconds) +
         " s in a private mount namespace.\nCPU frequencies: " + frequencySourceText(machine) +
         "\n\n" + textTotal(r.freqs, r.total) +
         heading("Busiest processes", processes.size(), rowCount(r.processes, overflow)) +
         textTaskTable(r.freqs, processes, /*withFlag=*/true) +
         heading("Busiest kernel threads", kthreads.size(), rowCount(r.kthreads, overflow)) +
         textTaskTable(r.freqs, kthreads, /*withFlag=*/false) +
         heading("Foreground and background time of the processes that ran", classes.size(),
                 classNames) +
         "(busiest first; time spent in each class since the load, asleep too, not CPU time)\n" +
         textClassTimes(classes) + (sampler ? "\n" + samplerText(options, *sampler) : "");
}

std::string demoJson(const Options& options, const DemoMachine& machine, const Snapshot& r,
                     size_t limit, const std::optional<lib::PowerModel>& model) {
  JsonWriter json;
  json.beginObject().key("seconds").value(uint64_t{options.seconds});
  json.key("synthetic").value(machine.synthetic).key("sampled_ms");
  machine.sampledMs != 0 ? json.value(uint64_t{machine.sampledMs}) : json.null();
  json.key("freqs_khz").numbers(r.freqs);
  json.key("total");
  writeTimes(json, r.total);
  json.key("processes");
  writeTasks(json, sortedTasks(r.processes, limit));
  json.key("kthreads");
  writeTasks(json, sortedTasks(r.kthreads, limit));
  json.key("top");
  writeNamedTimes(json, sortedNamedTimes(r.top, limit));
  json.key("bg");
  writeNamedTimes(json, sortedNamedTimes(r.bg, limit));
  if (model) {
    // The tables of show energy --json, or null when the times do not fit the model.
    const EnergyResult energy = energyOf(*model, r, limit);
    json.key("energy");
    if (energy.energy) {
      writeEnergyView(json, {*model, *energy.energy, {}, false});
    } else {
      json.null();
    }
  }
  return json.endObject().text() + "\n";
}

std::string demoCsv(const Snapshot& r, size_t limit) {
  return kCsvHeader + csvFreqs(r.freqs) + csvTotal(r.freqs, r.total) +
         csvTasks("process", r.freqs, sortedTasks(r.processes, limit)) +
         csvTasks("kthread", r.freqs, sortedTasks(r.kthreads, limit)) +
         csvNamedTimes("top", sortedNamedTimes(r.top, limit)) +
         csvNamedTimes("bg", sortedNamedTimes(r.bg, limit));
}

std::string demoEnergyText(const lib::PowerModel& model, const Snapshot& r, size_t limit) {
  const EnergyResult energy = energyOf(model, r, limit, OverflowRow::kWithTime);
  if (!energy.energy) return "\nno energy table: the times do not fit the power model\n";
  return "\n" + energyText({model, *energy.energy, {}, false});
}

}  // namespace

int runDemo(const Options& options) {
  if (options.words.size() != 1) return usageError("demo takes no argument");
  DemoMachine machine;
  const Sampling sampling{options.sample, options.sampleMs};
  // The model is read once the policies are set up; a bad one is then the only thing said.
  holdLibraryLog();
  if (std::string error = setUpDemo(sampling, &machine); !error.empty()) {
    releaseLibraryLog();
    return fail(error);
  }
  std::optional<lib::PowerModel> model;
  std::string energyNote, energyError;
  const bool modelUsable = optionalModel(options, &model, &energyNote, &energyError);
  releaseLibraryLog(/*withNotes=*/modelUsable);
  if (!modelUsable) return fail(energyError);
  if (options.format == Format::kText) {
    fprintf(stderr, "Tracking started; sampling for %u s.\n", options.seconds);
  }
  sample(options.seconds);
  const TakenSnapshot taken = takeSnapshot();
  tellUnsettled(taken.unsettled);
  std::optional<SamplerStats> sampler;
  if (machine.sampler) sampler = machine.sampler->stop();
  if (!taken.snapshot) return fail(taken.error);
  const bool textDefault = options.format == Format::kText && options.given.count("--limit") == 0;
  const size_t limit = textDefault ? kDefaultTextRows : options.limit;
  switch (options.format) {
    case Format::kJson:
      printOut(demoJson(options, machine, *taken.snapshot, limit, model));
      break;
    case Format::kCsv:
      printOut(demoCsv(*taken.snapshot, limit));
      break;
    case Format::kText:
      printOut(demoText(options, machine, *taken.snapshot, limit, sampler) +
               (model ? demoEnergyText(*model, *taken.snapshot, limit) : "\n" + energyNote + "\n"));
      break;
  }
  return kExitOk;
}

}  // namespace zelk::cli
