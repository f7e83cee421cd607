// show: every number comes from one of the library's queries.
#include <functional>

#include "commands.h"
#include "csv_views.h"
#include "energy_view.h"
#include "environment.h"
#include "json_views.h"
#include "text_table.h"
#include "text_views.h"
#include "zelkcpufreqtime.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;

constexpr size_t kDefaultTextRows = 20;

struct Request {
  const Options& options;
  const FreqTable& freqs;
  size_t limit;
};

int queryFailed(const std::string& function) {
  return fail(function + " failed (run with -v for the library's messages)");
}

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
  const auto times = lib::getTotalCpuFreqTimes();
  if (!times) {
    // The query also comes back empty when the map holds no entry at all.
    return fail(
        "getTotalCpuFreqTimes returned nothing: nothing has been counted since the load "
        "or the last reset (is `zelkcputime start` running?), or the map could not be read");
  }
  return emit(
      r.options, [&] { return textTotal(r.freqs, *times); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key("total");
        writeTimes(json, *times);
      },
      [&] { return csvTotal(r.freqs, *times); });
}

int showTable(const Request& r, bool kthreads) {
  const auto table = kthreads ? lib::getKthreadCpuFreqTimes() : lib::getProcessCpuFreqTimes();
  if (!table) return queryFailed(kthreads ? "getKthreadCpuFreqTimes" : "getProcessCpuFreqTimes");
  const std::vector<TaskTimes> rows = sortedTasks(*table, r.limit);
  return emit(
      r.options, [&] { return textTaskTable(r.freqs, rows, /*withFlag=*/!kthreads); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key(kthreads ? "kthreads" : "processes");
        writeTasks(json, rows);
      },
      [&] { return csvTasks(kthreads ? "kthread" : "process", r.freqs, rows); });
}

int showTask(const Request& r, bool kthread, const std::string& name) {
  const uint64_t flag = kthread || r.options.flag ? 1 : 0;
  const auto times = kthread ? lib::getCpuFreqTimesFromKthread(name)
                             : lib::getCpuFreqTimesFromProcess(name, flag != 0);
  if (!times) {
    // The single-task queries also fail on a map without any entry: say so when that is why.
    const auto all = kthread ? lib::getKthreadCpuFreqTimes() : lib::getProcessCpuFreqTimes();
    if (all && all->empty()) {
      return fail(std::string("no ") + (kthread ? "kernel thread" : "process") +
                  " has been counted yet: is `zelkcputime start` running?");
    }
    return queryFailed(kthread ? "getCpuFreqTimesFromKthread" : "getCpuFreqTimesFromProcess");
  }
  const TaskTimes task{name, flag, *times, sumTimes(*times)};
  const std::string title =
      kthread ? "kernel thread " + printableName(name)
              : "process " + printableName(name) + (flag != 0 ? " (foreground)" : " (background)");
  return emit(
      r.options, [&] { return textTask(title, r.freqs, task.times); },
      [&](JsonWriter& json) {
        json.key("freqs_khz").numbers(r.freqs).key(kthread ? "kthread" : "process");
        writeTask(json, task);
      },
      [&] { return csvTasks(kthread ? "kthread" : "process", r.freqs, {task}); });
}

int showClassTimes(const Request& r, bool top) {
  const auto table = top ? lib::getProcessTopTimes() : lib::getProcessBgTimes();
  if (!table) return queryFailed(top ? "getProcessTopTimes" : "getProcessBgTimes");
  const std::vector<NamedTime> rows = sortedNamedTimes(*table, r.limit);
  const char* name = top ? "top" : "bg";
  return emit(
      r.options, [&] { return textNamedTimes(top ? "foreground s" : "background s", rows); },
      [&](JsonWriter& json) {
        json.key(name);
        writeNamedTimes(json, rows);
      },
      [&] { return csvNamedTimes(name, rows); });
}

}  // namespace

int runShow(const Options& options) {
  if (options.words.size() > 1 && options.words[1] == "energy") return runShowEnergy(options);
  if (!options.model.empty() || options.voltage)
    return usageError("--model and --voltage apply to show energy");
  const std::string usage = checkViewWords(
      options, {"total", "processes", "kthreads", "process", "kthread", "top", "bg", "freqs"});
  if (!usage.empty()) return usageError(usage);
  const std::string& view = options.words[1];
  if (std::string message = checkReady(); !message.empty()) return fail(message);

  const auto freqs = lib::getCpuFreqs();
  if (!freqs) return queryFailed("getCpuFreqs");
  const bool textDefault = options.format == Format::kText && options.given.count("--limit") == 0;
  const Request request{options, *freqs, textDefault ? kDefaultTextRows : options.limit};
  if (view == "freqs") return showFreqs(request);
  if (view == "total") return showTotal(request);
  if (view == "processes" || view == "kthreads") return showTable(request, view == "kthreads");
  if (view == "process" || view == "kthread") {
    return showTask(request, view == "kthread", options.words[2]);
  }
  return showClassTimes(request, view == "top");
}

}  // namespace zelk::cli
