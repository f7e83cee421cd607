// The JSON forms of the views, written into a JsonWriter so that a command can combine them.
// Times are integer nanoseconds and frequencies integer kHz, as the library returns them.
#pragma once

#include <vector>

#include "model/snapshot.h"
#include "model/task_rows.h"
#include "views/json_writer.h"

namespace zelk::cli {

// {"total_ns":N,"time_ns":[[...],...]}
void writeTimes(JsonWriter& json, const Times& times);
// {"name":"x","flag":0,"total_ns":N,"time_ns":[[...],...]}
void writeTask(JsonWriter& json, const TaskTimes& task);
// The same for a single-task query, without "flag" when the task has none.
void writeTask(JsonWriter& json, const NamedTask& task);
// [task, ...]
void writeTasks(JsonWriter& json, const std::vector<TaskTimes>& tasks);
// [{"name":"x","time_ns":N}, ...]
void writeNamedTimes(JsonWriter& json, const std::vector<NamedTime>& rows);

}  // namespace zelk::cli
