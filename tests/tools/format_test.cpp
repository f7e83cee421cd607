// The people's formats: units, tables, charts, the progress line; and the JSON and CSV escaping.
#include <gtest/gtest.h>

#include "bar_chart.h"
#include "csv_writer.h"
#include "json_writer.h"
#include "progress_bar.h"
#include "text_table.h"
#include "units.h"

namespace zelk::cli {
namespace {

TEST(UnitsTest, MhzSecondsAndPercent) {
  EXPECT_EQ(formatMhz(300000), "300");
  EXPECT_EQ(formatMhz(1785600), "1785.6");
  EXPECT_EQ(formatMhz(2096021), "2096.021");
  EXPECT_EQ(formatMhz(999), "0.999");
  EXPECT_EQ(formatSeconds(0), "0.000");
  EXPECT_EQ(formatSeconds(499999), "0.000");
  EXPECT_EQ(formatSeconds(500000), "0.001");
  EXPECT_EQ(formatSeconds(1234567890), "1.235");
  EXPECT_EQ(formatSeconds(999999999), "1.000");  // the carry reaches the whole seconds
  EXPECT_EQ(formatSeconds(UINT64_MAX), "18446744073.710");
  EXPECT_EQ(formatPercent(1, 3), "33.3");
  EXPECT_EQ(formatPercent(5, 0), "0.0");
}

TEST(TextTableTest, AlignsColumnsAndHidesControlBytes) {
  EXPECT_EQ(renderTable({{"name", false}, {"total s", true}, {"x", false}},
                        {{"a", "1.000", "y"}, {printableName("long\tname\n"), "12.500", "z"}}),
            "name        total s  x\n"
            "a             1.000  y\n"
            "long?name?   12.500  z\n");
}

TEST(BarChartTest, BarsAreSharesOfTheirPolicy) {
  EXPECT_EQ(residencyChart({{300000, 1000000}, {500000}}, {{1000000000, 3000000000}, {0}}, 8),
            "policy 0: 4.000 s\n"
            "   300 MHz  ##......  1.000 s  25.0%\n"
            "  1000 MHz  ######..  3.000 s  75.0%\n"
            "policy 1: 0.000 s\n"
            "   500 MHz  ........  0.000 s   0.0%\n");
}

TEST(ProgressLineTest, FillsWithElapsedTime) {
  EXPECT_EQ(progressLine(0, 5000, 0, 10), "[..........]  0.0/5 s, 0.000 s of CPU time counted");
  EXPECT_EQ(progressLine(2550, 5000, 1500000000, 10),
            "[#####.....]  2.5/5 s, 1.500 s of CPU time counted");
  EXPECT_EQ(progressLine(5100, 5000, 0, 10), "[##########]  5.0/5 s, 0.000 s of CPU time counted");
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

TEST(JsonWriterTest, PlacesCommasAndColons) {
  JsonWriter json;
  json.beginObject().key("a").value(uint64_t{1}).key("b").beginArray().value("x").value(true);
  json.null().numbers(std::vector<std::vector<uint64_t>>{{1, 2}, {}}).endArray();
  json.key("c").beginObject().endObject().endObject();
  EXPECT_EQ(json.text(), R"({"a":1,"b":["x",true,null,[[1,2],[]]],"c":{}})");
}

TEST(CsvTest, QuotesOnlyWhenNeeded) {
  EXPECT_EQ(csvRow({"kworker/0:1", "", "a,b", "say \"hi\"", "two\nlines", " pad", "\xff"}),
            "kworker/0:1,,\"a,b\",\"say \"\"hi\"\"\",\"two\nlines\",\" pad\",\xff\n");
}

}  // namespace
}  // namespace zelk::cli
