// The tool's formats and parsers as functions: units, escaping, the views with their stable JSON
// (the CSV views show through the built tool), and the command line.
#include <gtest/gtest.h>

#include "commands/options.h"
#include "model/task_rows.h"
#include "views/csv_writer.h"
#include "views/json_views.h"
#include "views/text_views.h"
#include "views/units.h"

namespace zelk::cli {
namespace {

using com::zelkora::TimeInStateTable;
using com::zelkora::TimeTable;

TEST(UnitsTest, DecimalsAndRounding) {
  EXPECT_EQ(formatMhz(999), "0.999");
  EXPECT_EQ(formatSeconds(499999), "0.000");
  EXPECT_EQ(formatSeconds(999999999), "1.000");  // the carry reaches the whole seconds
  EXPECT_EQ(formatSeconds(UINT64_MAX), "18446744073.710");
}

TEST(JsonStringTest, EscapesAndKeepsOutputValidUtf8) {
  const std::pair<std::string, std::string> rows[] = {
      {"kworker/0:1", R"("kworker/0:1")"},
      {"a\"b\\c", R"("a\"b\\c")"},
      {"tab\there\n\x01\x7f", R"("tab\u0009here\u000a\u0001\u007f")"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
       "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
      {"\xff", "\"\xef\xbf\xbd\""},                  // never valid
      {"ab\xc3", "\"ab\xef\xbf\xbd\""},              // cut off at the end (16-byte names)
      {"\xc0\xaf", "\"\xef\xbf\xbd\xef\xbf\xbd\""},  // overlong '/'
      {"\xed\xa0\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\""},                  // a surrogate
      {"\xf4\x90\x80\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\""},  // > U+10FFFF
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(jsonString(text), expected) << text;
}

TEST(CsvTest, QuotesOnlyWhenNeeded) {
  EXPECT_EQ(csvRow({"kworker/0:1", "", "a,b", "say \"hi\"", "two\nlines", " pad", "\xff"}),
            "kworker/0:1,,\"a,b\",\"say \"\"hi\"\"\",\"two\nlines\",\" pad\",\xff\n");
}

const FreqTable kFreqs = {{300000, 1000000}, {500000}};

// Equal totals on purpose: the order must not depend on the hash table's. Times in `unit` ns.
TimeInStateTable processes(uint64_t unit = 1) {
  return {
      {{"b", 0}, {{1 * unit, 2 * unit}, {3 * unit}}},
      {{"a", 1}, {{0, 6 * unit}, {0}}},
      {{"a", 0}, {{6 * unit, 0}, {0}}},
      {{"big", 1}, {{10 * unit, 0}, {5 * unit}}},
      {{"id\tle", 0}, {{0, 0}, {0}}},
  };
}

TEST(JsonViewsTest, StableShapes) {
  JsonWriter json;
  json.beginObject().key("freqs_khz").numbers(kFreqs).key("total");
  writeTimes(json, {{1, 2}, {3}});
  json.key("processes");
  writeTasks(json, sortedTasks(processes(), 2));
  json.key("top");
  writeNamedTimes(json, {{"a\"b", 7}});
  json.key("empty").beginArray().endArray().endObject();
  EXPECT_EQ(
      json.text(),
      R"({"freqs_khz":[[300000,1000000],[500000]],"total":{"total_ns":6,"time_ns":[[1,2],[3]]},)"
      R"("processes":[{"name":"big","flag":1,"total_ns":15,"time_ns":[[10,0],[5]]},)"
      R"({"name":"a","flag":0,"total_ns":6,"time_ns":[[6,0],[0]]}],)"
      R"("top":[{"name":"a\"b","time_ns":7}],"empty":[]})");
}

TEST(TextViewsTest, TaskTableKeepsTheBusiestFrequenciesAndSumsTheRest) {
  // Over all rows: 17 s at 300 MHz, 8 s at 1000 MHz, 8 s at 500 MHz (the first of a tie wins).
  // Control bytes in a name print as '?'.
  EXPECT_EQ(textTaskTable(kFreqs, sortedTasks(processes(1000000000), 0), /*withFlag=*/true,
                          /*maxFreqColumns=*/2),
            "name   fg   total s  p0 300 MHz  p0 1000 MHz  other s\n"
            "big    yes   15.000      10.000        0.000    5.000\n"
            "a      no     6.000       6.000        0.000    0.000\n"
            "a      yes    6.000       0.000        6.000    0.000\n"
            "b      no     6.000       1.000        2.000    3.000\n"
            "id?le  no     0.000       0.000        0.000    0.000\n");
}

// An empty overflow entry is the map's own: tables for people leave it out, programs get it.
TEST(TaskRowsTest, OverflowEntryIsARowForPeopleOnlyWithTime) {
  TimeInStateTable table = processes();
  table[{"<map overflowed>", 0}] = {{0, 0}, {0}};
  table[{"<map overflowed>", 1}] = {{0, 4}, {0}};
  auto names = [](const std::vector<TaskTimes>& rows) {
    std::string all;
    for (const TaskTimes& row : rows) all += row.name + "/" + std::to_string(row.flag) + " ";
    return all;
  };
  EXPECT_EQ(names(sortedTasks(table, 0, OverflowRow::kWithTime)),
            "big/1 a/0 a/1 b/0 <map overflowed>/1 id\tle/0 ");
  EXPECT_EQ(names(sortedTasks(table, 0)),
            "big/1 a/0 a/1 b/0 <map overflowed>/1 <map overflowed>/0 id\tle/0 ");
  EXPECT_EQ(rowCount(table, OverflowRow::kWithTime), 6u);
  EXPECT_EQ(rowCount(table, OverflowRow::kAlways), 7u);

  const TimeTable top = {{{"<map overflowed>", 0}, 0}, {{"a", 0}, 0}};
  EXPECT_EQ(sortedNamedTimes(top, 0, OverflowRow::kWithTime).size(), 1u);  // "a" stays
  EXPECT_EQ(sortedNamedTimes(top, 0).size(), 2u);
}

// The demo's class table lists the names that ran, busiest first: a daemon asleep the whole time
// has the most class time and no row.
TEST(TaskRowsTest, ClassTimesOfTheNamesThatRan) {
  constexpr uint64_t kMs = 1000000;
  const TimeInStateTable ran = {{{"app", 1}, {{0, 3 * kMs}, {0}}},
                                {{"app", 0}, {{1 * kMs, 0}, {0}}},
                                {{"tool", 1}, {{5 * kMs, 0}, {0}}},
                                {{"idle", 0}, {{0, 0}, {0}}}};
  const TimeTable top = {
      {{"app", 0}, 30 * kMs}, {{"tool", 0}, 20 * kMs}, {{"sleeper", 0}, 1000 * kMs}};
  const TimeTable bg = {{{"app", 0}, 7 * kMs}, {{"kthreadd", 0}, 2000 * kMs}};
  const std::vector<ClassTimes> rows = ranClassTimes(ran, top, bg, 0);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].name, "tool");
  EXPECT_EQ(rows[1].name, "app");
  EXPECT_EQ(rows[1].cpuNs, 4 * kMs);  // both classes' entries
  EXPECT_EQ(ranClassTimes(ran, top, bg, 1).size(), 1u);
  EXPECT_EQ(textClassTimes(rows),
            "name  CPU s  foreground s  background s\n"
            "tool  0.005         0.020         0.000\n"
            "app   0.004         0.030         0.007\n");
}

TEST(ParseOptionsTest, OptionsAnywhereUntilDoubleDash) {
  const ParsedOptions parsed = parseOptions({"--json", "show", "process", "--", "-bash", "--flag"});
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"show", "process", "-bash", "--flag"}));
  EXPECT_EQ(parsed.options.format, Format::kJson);
  EXPECT_FALSE(parsed.options.flag);
}

TEST(ParseOptionsTest, MapSizesForLoad) {
  ParsedOptions parsed =
      parseOptions({"load", "--pids", "128", "--names", "64", "--kthreads", "32"});
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"load"}));
  EXPECT_EQ(parsed.options.sizes.names, 64u);
  EXPECT_EQ(parsed.options.sizes.kthreads, 32u);
  EXPECT_EQ(parsed.options.sizes.pids, 128u);
  EXPECT_EQ(parseOptions({"load"}).options.sizes.pids, 0u);  // the machine's default
  for (const auto& args : std::vector<std::vector<std::string>>{{"load", "--names", "0"},
                                                                {"load", "--names", "abc"},
                                                                {"load", "--names", "-1"},
                                                                {"load", "--names", "4294967296"},
                                                                {"load", "--names"}}) {
    parsed = parseOptions(args);
    EXPECT_EQ(parsed.error, "--names takes a number of entries from 1 to 4294967295")
        << args.back();
  }
}

}  // namespace
}  // namespace zelk::cli
