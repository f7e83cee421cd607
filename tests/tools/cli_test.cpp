// The tool's formats and parsers as functions: units, chart, escaping, the views of the library's
// tables with their stable JSON and CSV, the command line and the machine's nominal frequency.
#include <gtest/gtest.h>

#include "bar_chart.h"
#include "csv_views.h"
#include "csv_writer.h"
#include "json_views.h"
#include "options.h"
#include "synthetic_policy.h"
#include "task_rows.h"
#include "text_views.h"
#include "units.h"

namespace zelk::cli {
namespace {

using com::zelkora::TimeInStateTable;
using com::zelkora::TimeTable;

// The chart and the views below check the plainer cases.
TEST(UnitsTest, DecimalsAndRounding) {
  EXPECT_EQ(formatMhz(1785600), "1785.6");
  EXPECT_EQ(formatMhz(999), "0.999");
  EXPECT_EQ(formatSeconds(499999), "0.000");
  EXPECT_EQ(formatSeconds(500000), "0.001");
  EXPECT_EQ(formatSeconds(999999999), "1.000");  // the carry reaches the whole seconds
  EXPECT_EQ(formatSeconds(UINT64_MAX), "18446744073.710");
}

TEST(BarChartTest, BarsAreSharesOfTheirPolicy) {
  EXPECT_EQ(residencyChart({{300000, 1000000}, {500000}}, {{1000000000, 3000000000}, {0}}, 8),
            "policy 0: 4.000 s\n"
            "   300 MHz  ##......  1.000 s  25.0%\n"
            "  1000 MHz  ######..  3.000 s  75.0%\n"
            "policy 1: 0.000 s\n"
            "   500 MHz  ........  0.000 s   0.0%\n");
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

// The task rows' order (busiest, then name, then flag) shows in the task table below.
TEST(TaskRowsTest, NamedTimesBusiestFirstThenByName) {
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
  json.key("empty").beginArray().endArray().endObject();
  EXPECT_EQ(
      json.text(),
      R"({"freqs_khz":[[300000,1000000],[500000]],"total":{"total_ns":6,"time_ns":[[1,2],[3]]},)"
      R"("processes":[{"name":"big","flag":1,"total_ns":15,"time_ns":[[10,0],[5]]},)"
      R"({"name":"a","flag":0,"total_ns":6,"time_ns":[[6,0],[0]]}],)"
      R"("top":[{"name":"a\"b","time_ns":7}],"empty":[]})");
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

TEST(ParseOptionsTest, OptionsAnywhereUntilDoubleDash) {
  const ParsedOptions parsed = parseOptions({"--json", "show", "process", "--", "-bash", "--flag"});
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"show", "process", "-bash", "--flag"}));
  EXPECT_EQ(parsed.options.format, Format::kJson);
  EXPECT_FALSE(parsed.options.flag);
}

TEST(NominalFrequencyTest, ModelNameFirstThenCpuMhz) {
  const std::pair<std::string, std::optional<uint64_t>> rows[] = {
      {"model name\t: Intel(R) Core(TM) i7-8650U CPU @ 1.90GHz\ncpu MHz\t\t: 2112.000\n", 1900000},
      {"cpu MHz\t\t: 2096.021\nmodel name\t: AMD EPYC\ncpu MHz\t\t: 1500.000\n", 2096000},
      {"model name\t: Some CPU @ 800MHz\n", 800000},
      {"model name\t: Xeon @ 2.1234567GHz\n", 2123456},  // below 1 kHz is dropped
      {"model name\t: Odd @ GHz\ncpu MHz : 999.5\n", 1000000},
      {"processor\t: 0\nBogoMIPS\t: 48.00\nCPU implementer\t: 0x41\n", std::nullopt},  // arm64
      {"cpu MHz\t\t: fast\n", std::nullopt},
      {"cpu MHz\t\t: 0.001\n", std::nullopt},
  };
  for (const auto& [cpuinfo, khz] : rows) {
    const std::optional<NominalFrequency> found = nominalFrequency(cpuinfo);
    EXPECT_EQ(found ? std::optional<uint64_t>(found->khz) : std::nullopt, khz) << cpuinfo;
  }
}

}  // namespace
}  // namespace zelk::cli
