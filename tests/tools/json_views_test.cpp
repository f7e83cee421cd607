// The views' JSON: keys, order and shapes that programs rely on.
#include "views/json_views.h"

#include <gtest/gtest.h>

#include "task_tables_for_testing.h"

namespace zelk::cli {
namespace {

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

}  // namespace
}  // namespace zelk::cli
