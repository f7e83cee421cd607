#include "views/csv_views.h"

#include "views/csv_writer.h"

namespace zelk::cli {
namespace {

std::string timeRows(const std::string& table, const std::string& name, const std::string& flag,
                     const FreqTable& freqs, const Times& times) {
  std::string text;
  for (size_t p = 0; p < freqs.size(); ++p) {
    for (size_t f = 0; f < freqs[p].size(); ++f) {
      text += csvRow({table, name, flag, std::to_string(p), std::to_string(freqs[p][f]),
                      std::to_string(times.at(p).at(f))});
    }
  }
  return text;
}

}  // namespace

std::string csvFreqs(const FreqTable& freqs) {
  std::string text;
  for (size_t p = 0; p < freqs.size(); ++p) {
    for (uint64_t khz : freqs[p])
      text += csvRow({"freqs", "", "", std::to_string(p), std::to_string(khz), ""});
  }
  return text;
}

std::string csvTotal(const FreqTable& freqs, const Times& times) {
  return timeRows("total", "", "", freqs, times);
}

std::string csvTasks(const std::string& table, const FreqTable& freqs,
                     const std::vector<TaskTimes>& tasks) {
  std::string text;
  for (const TaskTimes& task : tasks) {
    text += timeRows(table, task.name, std::to_string(task.flag), freqs, task.times);
  }
  return text;
}

std::string csvTask(const std::string& table, const FreqTable& freqs, const NamedTask& task) {
  return timeRows(table, task.name, task.flag ? std::to_string(*task.flag) : "", freqs, task.times);
}

std::string csvNamedTimes(const std::string& table, const std::vector<NamedTime>& rows) {
  std::string text;
  for (const NamedTime& row : rows)
    text += csvRow({table, row.name, "", "", "", std::to_string(row.ns)});
  return text;
}

}  // namespace zelk::cli
