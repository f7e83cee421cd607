// The people's output of each view: MHz, seconds, tables sorted by time and residency charts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/task_rows.h"

namespace zelk::cli {

// "policy 0: 300 576 1000 MHz", one line per policy.
std::string textFreqs(const FreqTable& freqs);

// The whole system's time and its residency chart.
std::string textTotal(const FreqTable& freqs, const Times& times);

// One row per task: name, the foreground flag when `withFlag`, total seconds and seconds per
// frequency. Only frequencies where the rows spent time get a column, at most `maxFreqColumns`
// of the busiest, in frequency order; the rest is summed under "other s".
std::string textTaskTable(const FreqTable& freqs, const std::vector<TaskTimes>& rows, bool withFlag,
                          size_t maxFreqColumns = 6, const std::string& nameHeader = "name");

// "kernel thread NAME", or "process NAME" with its class: "(foreground)", "(background)", or
// "(foreground and background)" without a flag.
std::string taskTitle(bool kthread, const std::string& name, std::optional<uint64_t> flag);

// One task, headed by `title`, with its residency chart.
std::string textTask(const std::string& title, const FreqTable& freqs, const Times& times);

// Name and seconds, one row per name, under the header `timeHeader`.
std::string textNamedTimes(const std::string& timeHeader, const std::vector<NamedTime>& rows);

// Name, CPU seconds, foreground seconds and background seconds.
std::string textClassTimes(const std::vector<ClassTimes>& rows);

}  // namespace zelk::cli
