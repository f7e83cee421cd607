// The CSV forms of the views. Every view uses the same columns, so that the tables of one demo
// can share one file:
//   table,name,flag,policy,freq_khz,time_ns
// with the fields a table has no use for left empty.
#pragma once

#include <string>
#include <vector>

#include "model/snapshot.h"
#include "model/task_rows.h"

namespace zelk::cli {

inline constexpr const char kCsvHeader[] = "table,name,flag,policy,freq_khz,time_ns\n";

// table "freqs": one row per policy and frequency, without a time.
std::string csvFreqs(const FreqTable& freqs);
// table "total": one row per policy and frequency.
std::string csvTotal(const FreqTable& freqs, const Times& times);
// table `table` ("process" or "kthread"): one row per task, policy and frequency, in the tasks'
// order.
std::string csvTasks(const std::string& table, const FreqTable& freqs,
                     const std::vector<TaskTimes>& tasks);
// One task of a single-task query, its flag empty when it has none.
std::string csvTask(const std::string& table, const FreqTable& freqs, const NamedTask& task);
// table `table` ("top" or "bg"): one row per name, without policy and frequency.
std::string csvNamedTimes(const std::string& table, const std::vector<NamedTime>& rows);

}  // namespace zelk::cli
