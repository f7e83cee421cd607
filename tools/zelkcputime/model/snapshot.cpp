#include "model/snapshot.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

namespace zelk::cli {
namespace {

std::string failedMessage(const std::string& function, unsigned attempts) {
  const std::string times = attempts > 1 ? " " + std::to_string(attempts) + " times" : "";
  return function + " failed" + times + " (run with -v for the library's messages)";
}

// Tries `query` as the request says; false, with the error set, when every try failed.
template <typename T>
bool read(const std::function<std::optional<T>()>& query, const std::string& function,
          const SnapshotRequest& request, T* out, std::string* error) {
  const unsigned attempts = std::max(1u, request.attempts);
  for (unsigned attempt = 1;; ++attempt) {
    if (std::optional<T> value = query()) {
      *out = std::move(*value);
      return true;
    }
    if (attempt == attempts) break;
    std::this_thread::sleep_for(request.pause);
  }
  *error = failedMessage(function, attempts);
  return false;
}

std::atomic<bool> gSettleFailed{false};

}  // namespace

int settleForReading(const SnapshotQueries& queries, bool* settled) {
  *settled = queries.settle && queries.settle();
  if (*settled || !queries.settle) return 0;
  const int error = errno;
  // The kernel or the object cannot: it will not be able to at the next read either.
  return gSettleFailed.exchange(true) ? 0 : error;
}

TakenSnapshot takeSnapshot(const SnapshotRequest& request, const SnapshotQueries& queries) {
  Snapshot snapshot;
  snapshot.parts = request.parts & (kAllParts | kClassPartsPart | kCgroupsPart);
  const auto wants = [&](SnapshotPart part) { return (snapshot.parts & part) != 0; };
  bool settled = false;
  const int unsettled = settleForReading(queries, &settled);
  const auto settledAt = std::chrono::steady_clock::now();
  std::string error;
  if (!read(queries.freqs, "getCpuFreqs", request, &snapshot.freqs, &error)) {
    return {{}, error, unsettled};
  }
  if (wants(kTotalPart) &&
      !read(queries.total, "getTotalCpuFreqTimes", request, &snapshot.total, &error)) {
    // The query also comes back empty when the map holds no entry at all.
    return {{},
            "getTotalCpuFreqTimes returned nothing: nothing has been counted since the load "
            "or the last reset (is `zelkcputime start` running?), or the map could not be read",
            unsettled};
  }
  const bool ok =
      (!wants(kProcessesPart) ||
       read(queries.processes, "getProcessCpuFreqTimes", request, &snapshot.processes, &error)) &&
      (!wants(kKthreadsPart) ||
       read(queries.kthreads, "getKthreadCpuFreqTimes", request, &snapshot.kthreads, &error)) &&
      (!wants(kTopPart) ||
       read(queries.top, "getProcessTopTimes", request, &snapshot.top, &error)) &&
      (!wants(kBgPart) || read(queries.bg, "getProcessBgTimes", request, &snapshot.bg, &error)) &&
      (!wants(kClassPartsPart) ||
       (read(queries.topParts, "getProcessTopTimeParts", request, &snapshot.topParts, &error) &&
        read(queries.bgParts, "getProcessBgTimeParts", request, &snapshot.bgParts, &error))) &&
      (!wants(kCgroupsPart) ||
       read(queries.cgroups, "getCgroupCpuFreqTimes", request, &snapshot.cgroups, &error));
  if (!ok) return {{}, error, unsettled};
  snapshot.takenAt = settled ? settledAt : std::chrono::steady_clock::now();
  return {std::move(snapshot), "", unsettled};
}

TakenTask takeTask(const TaskQuery& query, const SnapshotQueries& queries) {
  bool settled = false;
  const int unsettled = settleForReading(queries, &settled);
  NamedTask task{query.name, uint64_t{1}, {}};
  std::optional<Times> times;
  if (query.kthread) {
    times = queries.kthread(query.name);
  } else if (query.classes != ProcessClass::kBoth) {
    task.flag = query.classes == ProcessClass::kForeground ? 1 : 0;
    times = queries.process(query.name, *task.flag != 0);
  } else {
    task.flag.reset();
    times = queries.process(query.name, /*flag=*/true);
    const std::optional<Times> background = queries.process(query.name, /*flag=*/false);
    // Both come from one frequency table: the shapes differ only when it changed in between.
    if (times && !(background && addTimes(*background, &*times))) times.reset();
  }
  if (times) {
    task.times = std::move(*times);
    return {std::move(task), "", unsettled};
  }
  // The single-task queries also fail on a map without any entry: say so when that is why.
  const auto all = query.kthread ? queries.kthreads() : queries.processes();
  if (all && all->empty()) {
    return {{},
            std::string("no ") + (query.kthread ? "kernel thread" : "process") +
                " has been counted yet: is `zelkcputime start` running?",
            unsettled};
  }
  return {
      {},
      failedMessage(query.kthread ? "getCpuFreqTimesFromKthread" : "getCpuFreqTimesFromProcess", 1),
      unsettled};
}

}  // namespace zelk::cli
