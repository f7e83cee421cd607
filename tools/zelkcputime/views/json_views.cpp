#include "views/json_views.h"

namespace zelk::cli {

void writeTimes(JsonWriter& json, const Times& times) {
  json.beginObject().key("total_ns").value(sumTimes(times)).key("time_ns").numbers(times);
  json.endObject();
}

void writeTask(JsonWriter& json, const TaskTimes& task) {
  json.beginObject().key("name").value(task.name).key("flag").value(task.flag);
  json.key("total_ns").value(task.total).key("time_ns").numbers(task.times).endObject();
}

void writeTask(JsonWriter& json, const NamedTask& task) {
  json.beginObject().key("name").value(task.name);
  if (task.flag) json.key("flag").value(*task.flag);
  json.key("total_ns").value(sumTimes(task.times)).key("time_ns").numbers(task.times).endObject();
}

void writeTasks(JsonWriter& json, const std::vector<TaskTimes>& tasks) {
  json.beginArray();
  for (const TaskTimes& task : tasks) writeTask(json, task);
  json.endArray();
}

void writeNamedTimes(JsonWriter& json, const std::vector<NamedTime>& rows) {
  json.beginArray();
  for (const NamedTime& row : rows) {
    json.beginObject().key("name").value(row.name).key("time_ns").value(row.ns).endObject();
  }
  json.endArray();
}

}  // namespace zelk::cli
