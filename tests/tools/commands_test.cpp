// The tool end to end: against the kernel object in a private namespace, and the demo on the
// real machine.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "namespace.h"
#include "policy_tree.h"
#include "tool_run.h"

namespace zelk::testbed {
namespace {

constexpr const char kTotalPin[] = "/sys/fs/bpf/map_zelkCputimeInState_total_cpu_time_in_state_map";

std::string jsonLists(const std::vector<std::vector<uint64_t>>& lists) {
  std::string text = "[";
  for (const auto& list : lists) {
    text += (text.size() > 1 ? ",[" : "[");
    for (size_t i = 0; i < list.size(); ++i) text += (i ? "," : "") + std::to_string(list[i]);
    text += "]";
  }
  return text + "]";
}

// The first "total_ns" of a JSON output, or -1.
long long firstTotalNs(const std::string& json) {
  std::smatch match;
  if (!std::regex_search(json, match, std::regex(R"("total_ns":([0-9]+))"))) return -1;
  return std::stoll(match[1]);
}

class ToolCommandTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

TEST_F(ToolCommandTest, LoadStartShowResetUnload) {
  const auto freqs = addPhoneTree();
  // Inherited by the tool, so that its processes count as foreground.
  ASSERT_TRUE(android::base::WriteStringToFile("0", "/proc/self/oom_score_adj"));
  ToolRun run = runTool({"load"});
  ASSERT_EQ(run.status, 0) << run.output;

  run = runTool({"show", "freqs", "--json"});
  EXPECT_EQ(run.output, "{\"freqs_khz\":" + jsonLists(freqs) + "}\n");
  run = runTool({"show", "total"});  // nothing counted yet: the map is empty
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.output.find("nothing has been counted"), std::string::npos) << run.output;

  run = runTool({"show", "process", "zelkcputime"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.output.find("no process has been counted yet"), std::string::npos) << run.output;

  run = runTool({"start", "--seconds", "1"});
  ASSERT_EQ(run.status, 0) << run.output;
  // This machine's CPUs fall in the first policy, at the frequency the tree sets as current.
  run = runTool({"show", "total", "--csv"}, ToolUser::kRoot, ToolStreams::kStdoutOnly);
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(std::regex_search(run.output, std::regex("\ntotal,,,0,300000,[1-9][0-9]*\n")))
      << run.output;
  run = runTool({"show", "processes", "--csv", "--limit", "1"});
  EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1 + 18 + 17 + 19) << run.output;
  // The tool's own process ran in the foreground (the oom_score_adj of 0 set above).
  run = runTool({"show", "process", "zelkcputime", "--flag", "--json"});
  EXPECT_TRUE(std::regex_search(
      run.output, std::regex(R"("process":\{"name":"zelkcputime","flag":1,"total_ns":[1-9])")))
      << run.output;
  run = runTool({"status", "--json"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("\"supported\":true,\"tracking_pids\":[]"), std::string::npos);

  EXPECT_EQ(runTool({"reset", "total"}).status, 0);
  EXPECT_EQ(runTool({"show", "total"}).status, 1);
  EXPECT_EQ(runTool({"unload"}).status, 0);
  struct stat st;
  EXPECT_NE(stat(kTotalPin, &st), 0);
}

// The main job on this machine as it is, in the demo's own namespace.
TEST(ToolDemoTest, CountsTimeAndLeavesNothingBehind) {
  if (geteuid() != 0) ZELK_SKIP_OR_FAIL("the demo needs root");
  struct stat st;
  const bool pinnedBefore = stat(kTotalPin, &st) == 0;

  const ToolRun run =
      runTool({"demo", "--seconds", "1", "--json"}, ToolUser::kRoot, ToolStreams::kStdoutOnly);
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output.rfind("{\"seconds\":1,\"synthetic\":", 0), 0u) << run.output;
  EXPECT_GT(firstTotalNs(run.output), 0) << run.output;
  // The demo itself ran, so it was counted.
  EXPECT_NE(run.output.find("{\"name\":\"zelkcputime\",\"flag\":"), std::string::npos);
  EXPECT_EQ(stat(kTotalPin, &st) == 0, pinnedBefore);
}

}  // namespace
}  // namespace zelk::testbed
