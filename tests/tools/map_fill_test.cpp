// The maps' fill as status reads it, while keys come and go.
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "tool_run.h"

namespace zelk::testbed {
namespace {

using MapFillTest = ToolTest;

// Pid churn deletes keys while `status` counts them, and a walk by next key restarts at the first
// key when the one it stands on goes, counting keys twice up to the map's capacity. The test
// churns the keys as ending and starting processes would, in a map that never holds more than
// kKeys of them.
TEST_F(MapFillTest, StatusCountsEachEntryOnceWhileKeysComeAndGo) {
  addPolicy("policy0", {300000, 600000}, {0, 1, 2, 3});
  ASSERT_EQ(runTool({"load", "--pids", "4096"}).status, 0);
  const android::base::unique_fd map(
      bpf_obj_get("/sys/fs/bpf/map_zelkCputimeInState_pid_to_comm_map"));
  ASSERT_GE(map.get(), 0) << strerror(errno);
  bpf_map_info info = {};
  __u32 length = sizeof(info);
  ASSERT_EQ(bpf_obj_get_info_by_fd(map.get(), &info, &length), 0);
  const std::vector<char> name(info.value_size, 'z');
  constexpr uint32_t kKeys = 1000, kGone = 100;
  for (uint32_t pid = 1; pid <= kKeys; ++pid) {
    ASSERT_EQ(bpf_map_update_elem(map.get(), &pid, name.data(), BPF_ANY), 0);
  }
  // Each turn one key goes and the one that went kGone turns before comes back.
  const Child churn([&](Child&) {
    for (uint32_t pid = 1;; pid = pid % kKeys + 1) {
      const uint32_t back = (pid + kKeys - kGone - 1) % kKeys + 1;
      bpf_map_delete_elem(map.get(), &pid);
      bpf_map_update_elem(map.get(), &back, name.data(), BPF_ANY);
    }
  });
  static const std::regex entries(R"("name":"pid_to_comm_map","entries":([0-9]+))");
  uint64_t most = 0, least = kKeys;
  for (int i = 0; i < 20; ++i) {
    const ChildResult run = runTool({"status", "--json"}, false, /*withStderr=*/false);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(run.output, match, entries)) << run.output;
    most = std::max<uint64_t>(most, std::stoull(match[1]));
    least = std::min<uint64_t>(least, std::stoull(match[1]));
  }
  EXPECT_LE(most, kKeys);
  EXPECT_GE(least, kKeys - 2 * kGone);  // about kGone are gone at any moment
}

}  // namespace
}  // namespace zelk::testbed
