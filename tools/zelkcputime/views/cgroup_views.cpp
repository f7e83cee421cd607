#include "views/cgroup_views.h"

#include <algorithm>
#include <map>

#include "views/csv_views.h"
#include "views/text_table.h"
#include "views/text_views.h"

namespace zelk::cli {
namespace {

constexpr size_t kShortIdLength = 12;  // as `docker ps` shows an id

constexpr size_t kMaxNameLength = 40;

// What `workload` names that its parent's does not: a pod's containers need not repeat the pod.
CgroupWorkload newIn(const CgroupWorkload& workload, const CgroupWorkload* parent) {
  if (parent == nullptr) return workload;
  CgroupWorkload shown;
  if (workload.unit != parent->unit) shown.unit = workload.unit;
  if (workload.containerId != parent->containerId) shown.containerId = workload.containerId;
  if (workload.podUid != parent->podUid) shown.podUid = workload.podUid;
  return shown;
}

// A row as the tree shows it: its last component, indented by its depth and cut where long (a
// container's scope holds a 64-digit id, which the workload shows short), and what it names
// beyond its parent.
std::string treeName(const CgroupRow& row, const CgroupWorkload* parent) {
  if (row.kind != CgroupRowKind::kCgroup || row.path == "/") return row.path;
  const size_t depth = static_cast<size_t>(std::count(row.path.begin(), row.path.end(), '/'));
  std::string name = row.path.substr(row.path.rfind('/') + 1);
  if (name.size() > kMaxNameLength) name = name.substr(0, kMaxNameLength - 3) + "...";
  const std::string workload = workloadText(newIn(row.workload, parent));
  return std::string(2 * depth, ' ') + name + (workload.empty() ? "" : "  [" + workload + "]");
}

// In tree order: each parent before its children, the rows without a path last.
std::vector<TaskTimes> asTree(std::vector<CgroupRow> rows) {
  std::stable_sort(rows.begin(), rows.end(), [](const CgroupRow& a, const CgroupRow& b) {
    if (a.kind != b.kind) return a.kind < b.kind;
    return a.path < b.path;
  });
  std::map<std::string, const CgroupWorkload*> shown;
  std::vector<TaskTimes> tasks;
  tasks.reserve(rows.size());
  for (const CgroupRow& row : rows) {
    const size_t slash = row.path.rfind('/');
    const auto parent = shown.find(slash == 0 ? "/" : row.path.substr(0, slash));
    tasks.push_back(
        {treeName(row, parent == shown.end() ? nullptr : parent->second), 0, row.times, row.total});
    shown[row.path] = &row.workload;
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
         textTaskTable(freqs, asTree(rows), /*withFlag=*/false, 6, "cgroup");
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
