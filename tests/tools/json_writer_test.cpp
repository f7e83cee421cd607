// The JSON writer's strings: escaped, and valid UTF-8 whatever bytes a task name holds.
#include "views/json_writer.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

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

}  // namespace
}  // namespace zelk::cli
