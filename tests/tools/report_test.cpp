// The views of the library's tables: their order, their limit, and the exact JSON and CSV that
// programs rely on.
#include <gtest/gtest.h>

#include "csv_views.h"
#include "json_views.h"
#include "task_rows.h"
#include "text_views.h"

namespace zelk::cli {
namespace {

using com::zelkora::TimeInStateTable;
using com::zelkora::TimeTable;

const FreqTable kFreqs = {{300000, 1000000}, {500000}};

// Equal totals on purpose: the order must not depend on the hash table's. Times in `unit` ns.
TimeInStateTable processes(uint64_t unit = 1) {
  return {
      {{"b", 0}, {{1 * unit, 2 * unit}, {3 * unit}}},
      {{"a", 1}, {{0, 6 * unit}, {0}}},
      {{"a", 0}, {{6 * unit, 0}, {0}}},
      {{"big", 1}, {{10 * unit, 0}, {5 * unit}}},
      {{"idle", 0}, {{0, 0}, {0}}},
  };
}

TEST(TaskRowsTest, BusiestFirstThenNameThenFlag) {
  std::vector<std::string> order;
  for (const TaskTimes& row : sortedTasks(processes(), 0)) {
    order.push_back(row.name + "/" + std::to_string(row.flag) + "=" + std::to_string(row.total));
  }
  EXPECT_EQ(order, (std::vector<std::string>{"big/1=15", "a/0=6", "a/1=6", "b/0=6", "idle/0=0"}));
  EXPECT_EQ(sortedTasks(processes(), 2).size(), 2u);

  const TimeTable top = {{{"x", 0}, 5}, {{"y", 0}, 7}};
  const TimeTable bg = {{{"x", 0}, 4}, {{"z", 0}, 9}};
  const std::vector<ClassTimes> joined = joinedClassTimes(top, bg, 0);
  ASSERT_EQ(joined.size(), 3u);
  EXPECT_EQ(joined[0].name, "x");  // 5 + 4 beats 9 on the name
  EXPECT_EQ(joined[0].topNs + joined[0].bgNs, 9u);
  EXPECT_EQ(joined[2].name, "y");
  EXPECT_EQ(sortedNamedTimes(bg, 1).front().name, "z");
}

TEST(JsonViewsTest, StableShapes) {
  JsonWriter json;
  json.beginObject().key("freqs_khz").numbers(kFreqs).key("total");
  writeTimes(json, {{1, 2}, {3}});
  json.key("processes");
  writeTasks(json, sortedTasks(processes(), 2));
  json.key("top");
  writeNamedTimes(json, {{"a\"b", 7}});
  json.endObject();
  EXPECT_EQ(
      json.text(),
      R"({"freqs_khz":[[300000,1000000],[500000]],"total":{"total_ns":6,"time_ns":[[1,2],[3]]},)"
      R"("processes":[{"name":"big","flag":1,"total_ns":15,"time_ns":[[10,0],[5]]},)"
      R"({"name":"a","flag":0,"total_ns":6,"time_ns":[[6,0],[0]]}],)"
      R"("top":[{"name":"a\"b","time_ns":7}]})");
}

TEST(CsvViewsTest, OneHeaderForEveryTable) {
  EXPECT_EQ(std::string(kCsvHeader) + csvFreqs({{300000}}) + csvTotal({{300000}}, {{4}}) +
                csvTasks("kthread", kFreqs, {{"k,1", 1, {{1, 2}, {3}}, 6}}) +
                csvNamedTimes("bg", {{"x", 9}}),
            "table,name,flag,policy,freq_khz,time_ns\n"
            "freqs,,,0,300000,\n"
            "total,,,0,300000,4\n"
            "kthread,\"k,1\",1,0,300000,1\n"
            "kthread,\"k,1\",1,0,1000000,2\n"
            "kthread,\"k,1\",1,1,500000,3\n"
            "bg,x,,,,9\n");
}

TEST(TextViewsTest, TaskTableKeepsTheBusiestFrequenciesAndSumsTheRest) {
  // Over all rows: 17 s at 300 MHz, 8 s at 1000 MHz, 8 s at 500 MHz (the first of a tie wins).
  EXPECT_EQ(textTaskTable(kFreqs, sortedTasks(processes(1000000000), 0), /*withFlag=*/true,
                          /*maxFreqColumns=*/2),
            "name  fg   total s  p0 300 MHz  p0 1000 MHz  other s\n"
            "big   yes   15.000      10.000        0.000    5.000\n"
            "a     no     6.000       6.000        0.000    0.000\n"
            "a     yes    6.000       0.000        6.000    0.000\n"
            "b     no     6.000       1.000        2.000    3.000\n"
            "idle  no     0.000       0.000        0.000    0.000\n");
}

}  // namespace
}  // namespace zelk::cli
