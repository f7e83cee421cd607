#include "views/cgroup_views.h"

#include <algorithm>

#include "views/csv_views.h"
#include "views/text_table.h"
#include "views/text_views.h"

namespace zelk::cli {
namespace {

constexpr size_t kShortIdLength = 12;  // as `docker ps` shows an id

std::vector<TaskTimes> asTasks(const std::vector<CgroupRow>& rows) {
  std::vector<TaskTimes> tasks;
  tasks.reserve(rows.size());
  for (const CgroupRow& row : rows) {
    const std::string workload = workloadText(row.workload);
    tasks.push_back(
        {row.path + (workload.empty() ? "" : "  [" + workload + "]"), 0, row.times, row.total});
  }
  return tasks;
}

}  // namespace

std::string workloadText(const CgroupWorkload& workload) {
  std::string text;
  const auto add = [&](const char* what, const std::string& value) {
    if (!value.empty()) text += (text.empty() ? "" : ", ") + std::string(what) + " " + value;
  };
  add("unit", workload.unit);
  add("pod", workload.podUid);
  add("container", workload.containerId.substr(0, kShortIdLength));
  return text;
}

std::vector<CgroupRow> sortedCgroupRows(std::vector<CgroupRow> rows, size_t limit) {
  std::stable_sort(rows.begin(), rows.end(), [](const CgroupRow& a, const CgroupRow& b) {
    return a.total != b.total ? a.total > b.total : a.path < b.path;
  });
  if (limit != 0 && rows.size() > limit) rows.resize(limit);
  return rows;
}

std::string textCgroupTable(const FreqTable& freqs, const std::vector<CgroupRow>& rows,
                            std::optional<unsigned> depth) {
  const std::string levels =
      depth ? ", deeper ones folded in at " + std::to_string(*depth) + " below the root" : "";
  return "each cgroup's time includes its descendants'" + levels + "\n" +
         textTaskTable(freqs, asTasks(rows), /*withFlag=*/false);
}

std::string cgroupTitle(const CgroupRow& row) {
  const std::string workload = workloadText(row.workload);
  return "cgroup " + printableName(row.path) + " with its descendants" +
         (workload.empty() ? "" : " (" + workload + ")");
}

void writeCgroup(JsonWriter& json, const CgroupRow& row) {
  json.beginObject().key("path").value(row.path);
  for (const auto& [key, value] :
       {std::pair{"unit", &row.workload.unit}, std::pair{"container_id", &row.workload.containerId},
        std::pair{"pod_uid", &row.workload.podUid}}) {
    if (!value->empty()) json.key(key).value(*value);
  }
  json.key("total_ns").value(row.total).key("time_ns").numbers(row.times).endObject();
}

void writeCgroups(JsonWriter& json, const std::vector<CgroupRow>& rows) {
  json.beginArray();
  for (const CgroupRow& row : rows) writeCgroup(json, row);
  json.endArray();
}

std::string csvCgroups(const FreqTable& freqs, const std::vector<CgroupRow>& rows) {
  std::string text;
  for (const CgroupRow& row : rows) {
    text += csvTask("cgroup", freqs, NamedTask{row.path, std::nullopt, row.times});
  }
  return text;
}

}  // namespace zelk::cli
