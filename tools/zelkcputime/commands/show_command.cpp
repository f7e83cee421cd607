// show: every number comes from one snapshot of the tables the view shows.
#include <functional>
#include <optional>
#include <regex>

#include "commands/commands.h"
#include "commands/library_log.h"
#include "machine/environment.h"
#include "model/snapshot.h"
#include "views/cgroup_views.h"
#include "views/csv_views.h"
#include "views/json_views.h"
#include "views/text_table.h"
#include "views/text_views.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::cli {
namespace {

constexpr size_t kDefaultTextRows = 20;

struct Request {
  const Options& options;
  const Snapshot& snapshot;
  const FreqTable& freqs;
  size_t limit;
  OverflowRow overflow;  // text leaves an empty overflow entry out
};

int emit(const Options& options, const std::function<std::string()>& text,
         const std::function<void(JsonWriter&)>& json, const std::function<std::string()>& csv) {
  if (options.format == Format::kJson) {
    JsonWriter writer;
    writer.beginObject();
    json(writer);
    printOut(writer.endObject().text() + "\n");
  } else if (options.format == Format::kCsv) {
    printOut(kCsvHeader + csv());
  } else {
    printOut(text());
  }
  return kExitOk;
}

int showFreqs(const Request& r) {
  return emit(
      r.options, [&] { return textFreqs(r.freqs); },
      [&](JsonWriter& json) { json.key("freqs_khz").numbers(r.freqs); },
      [&] { return csvFreqs(r.freqs); });
}

int showTotal(const Request& r) {
  const Times& times = r.snapshot.total;
  return emit(
      r.options, [&] { return textTotal(r.freqs, times); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key("total");
        writeTimes(json, times);
      },
      [&] { return csvTotal(r.freqs, times); });
}

int showTable(const Request& r, bool kthreads) {
  const std::vector<TaskTimes> rows =
      sortedTasks(kthreads ? r.snapshot.kthreads : r.snapshot.processes, r.limit, r.overflow);
  return emit(
      r.options, [&] { return textTaskTable(r.freqs, rows, /*withFlag=*/!kthreads); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key(kthreads ? "kthreads" : "processes");
        writeTasks(json, rows);
      },
      [&] { return csvTasks(kthreads ? "kthread" : "process", r.freqs, rows); });
}

int showTask(const Request& r, bool kthread, const std::string& name) {
  const TakenTask taken = takeTask({kthread, name, processClass(r.options)}, readingQueries());
  tellUnsettled(taken.unsettled);
  if (!taken.task) return fail(taken.error);
  const NamedTask& task = *taken.task;
  return emit(
      r.options, [&] { return textTask(taskTitle(kthread, name, task.flag), r.freqs, task.times); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key(kthread ? "kthread" : "process");
        writeTask(json, task);
      },
      [&] { return csvTask(kthread ? "kthread" : "process", r.freqs, task); });
}

int showClassTimes(const Request& r, bool top) {
  const std::vector<NamedTime> rows =
      sortedNamedTimes(top ? r.snapshot.top : r.snapshot.bg, r.limit, r.overflow);
  const char* name = top ? "top" : "bg";
  return emit(
      r.options, [&] { return textNamedTimes(top ? "foreground s" : "background s", rows); },
      [&](JsonWriter& json) {
        json.key(name);
        writeNamedTimes(json, rows);
      },
      [&] { return csvNamedTimes(name, rows); });
}

std::optional<std::regex> matchOf(const Options& options) {
  if (options.cgroupMatch.empty()) return std::nullopt;
  return std::regex(options.cgroupMatch, std::regex::ECMAScript | std::regex::nosubs);
}

void tellCgroupV2Note() {
  if (const std::string note = cgroupV2Note(); !note.empty())
    tellNote("zelkcputime: note: " + note);
}

int showCgroups(const Request& r) {
  const std::optional<std::regex> match = matchOf(r.options);
  const std::vector<CgroupRow> rows = sortedCgroupRows(
      cgroupRows(r.snapshot.cgroups, {r.options.cgroupDepth, match ? &*match : nullptr}), r.limit);
  tellCgroupV2Note();
  return emit(
      r.options, [&] { return textCgroupTable(r.freqs, rows, r.options.cgroupDepth); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key("includes_descendants").value(true);
        json.key("depth");
        r.options.cgroupDepth ? json.value(uint64_t{*r.options.cgroupDepth}) : json.null();
        json.key("cgroups");
        writeCgroups(json, rows);
      },
      [&] { return csvCgroups(r.freqs, rows); });
}

int showCgroup(const Request& r, const std::string& given) {
  const std::string mount = com::zelkora::getCgroupV2Mount();
  const std::string path = normalCgroupPath(given, mount);
  std::optional<CgroupRow> found;
  for (CgroupRow& row : cgroupRows(r.snapshot.cgroups, {})) {
    if (row.kind == CgroupRowKind::kCgroup && row.path == path) found = std::move(row);
  }
  if (!found) {
    // A cgroup that exists but has run nothing since the load or the last reset.
    if (!com::zelkora::getCgroupId(path)) {
      return fail("no cgroup " + printableName(path) + " has been counted" +
                  (mount.empty() ? " (no cgroup v2 hierarchy is mounted)"
                                 : " and there is none under " + mount));
    }
    Times zeros;
    for (const std::vector<uint64_t>& policy : r.freqs) zeros.emplace_back(policy.size(), 0);
    found = CgroupRow{path, CgroupRowKind::kCgroup, recogniseWorkload(path), zeros, 0};
  }
  tellCgroupV2Note();
  const CgroupRow& row = *found;
  return emit(
      r.options, [&] { return textTask(cgroupTitle(row), r.freqs, row.times); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key("includes_descendants").value(true);
        json.key("cgroup");
        writeCgroup(json, row);
      },
      [&] { return csvCgroups(r.freqs, {row}); });
}

// The tables `view` shows; "freqs" and the single-task views need only the frequency table.
unsigned partsOf(const std::string& view) {
  if (view == "total") return kTotalPart;
  if (view == "processes") return kProcessesPart;
  if (view == "kthreads") return kKthreadsPart;
  if (view == "top") return kTopPart;
  if (view == "bg") return kBgPart;
  if (view == "cgroups" || view == "cgroup") return kCgroupsPart;
  return 0;
}

}  // namespace

int runShow(const Options& options) {
  if (options.words.size() > 1 && options.words[1] == "energy") return runShowEnergy(options);
  if (!options.model.empty() || options.voltage)
    return usageError("--model and --voltage apply to show energy");
  const std::string usage =
      checkViewWords(options, {"total", "processes", "kthreads", "process", "kthread", "top", "bg",
                               "freqs", "cgroups", "cgroup"});
  if (!usage.empty()) return usageError(usage);
  const std::string& view = options.words[1];
  if ((options.cgroupDepth || !options.cgroupMatch.empty()) && view != "cgroups") {
    return usageError("--depth and --match apply to show cgroups");
  }
  if (std::string message = checkReady(); !message.empty()) return fail(message);

  SnapshotRequest snapshotRequest;
  snapshotRequest.parts = partsOf(view);
  const TakenSnapshot taken = takeSnapshot(snapshotRequest, readingQueries());
  tellUnsettled(taken.unsettled);
  if (!taken.snapshot) return fail(taken.error);
  const bool textDefault = options.format == Format::kText && options.given.count("--limit") == 0;
  const Request request{
      options, *taken.snapshot, taken.snapshot->freqs,
      textDefault ? kDefaultTextRows : options.limit,
      options.format == Format::kText ? OverflowRow::kWithTime : OverflowRow::kAlways};
  if (view == "freqs") return showFreqs(request);
  if (view == "total") return showTotal(request);
  if (view == "processes" || view == "kthreads") return showTable(request, view == "kthreads");
  if (view == "process" || view == "kthread") {
    return showTask(request, view == "kthread", options.words[2]);
  }
  if (view == "cgroups") return showCgroups(request);
  if (view == "cgroup") return showCgroup(request, options.words[2]);
  return showClassTimes(request, view == "top");
}

}  // namespace zelk::cli
