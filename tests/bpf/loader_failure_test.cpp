// The loader's failures, each caused for real: a verifier rejection, a kernel without BTF, and
// missing capabilities, seen through the command line's message and exit code.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "child_process.h"
#include "maps.h"
#include "namespace.h"
#include "object_loader.h"

namespace zelk::testbed {
namespace {

using loader::Status;

class LoaderFailureTest : public KernelTest {};

TEST_F(LoaderFailureTest, VerifierRejectionQuotesItsLog) {
  std::ifstream file(ZELK_REJECTED_OBJECT, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  ASSERT_FALSE(bytes.empty());
  loader::LoadOptions options;
  options.object = {bytes.data(), bytes.size()};
  const loader::Outcome outcome = loader::load(options);
  EXPECT_EQ(outcome.status, Status::kFailed);
  EXPECT_EQ(outcome.message.rfind("the kernel's verifier rejected program out_of_bounds", 0), 0u)
      << outcome.message;
  EXPECT_NE(outcome.message.find("invalid access to map value"), std::string::npos)
      << outcome.message;
  EXPECT_EQ(access("/sys/fs/bpf/map_zelkCputimeInState_rejected_map", F_OK), -1);
}

TEST_F(LoaderFailureTest, NoKernelBtfIsNamed) {
  // Hides the kernel's BTF in this namespace only.
  ASSERT_EQ(mount("tmpfs", "/sys/kernel/btf", "tmpfs", 0, nullptr), 0) << strerror(errno);
  const loader::Outcome outcome = loader::load();
  EXPECT_EQ(outcome.status, Status::kFailed);
  EXPECT_NE(outcome.message.find("no BTF"), std::string::npos) << outcome.message;
  EXPECT_EQ(access(pinPath(MapId::ClearTime).c_str(), F_OK), -1);
  umount("/sys/kernel/btf");
}

size_t lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

TEST_F(LoaderFailureTest, CommandLineSaysOneLineAndExitsAccordingly) {
  // Root regains every capability at exec unless the bounding set lacks it.
  const ChildResult denied = runProgram(ZELK_LOADER_PATH, {"load"}, [] {
    for (int cap : {CAP_SYS_ADMIN, CAP_BPF, CAP_PERFMON}) prctl(PR_CAPBSET_DROP, cap, 0, 0, 0);
    return true;
  });
  EXPECT_EQ(denied.status, 1);
  EXPECT_EQ(denied.output.rfind("zelk-loader: no permission to use bpf(2)", 0), 0u)
      << denied.output;
  EXPECT_NE(denied.output.find("CAP_BPF"), std::string::npos) << denied.output;
  EXPECT_EQ(lines(denied.output), 1u);
  EXPECT_EQ(access(pinPath(MapId::ClearTime).c_str(), F_OK), -1);

  const ChildResult loaded = runProgram(ZELK_LOADER_PATH, {});  // loads by default
  EXPECT_EQ(loaded.status, 0) << loaded.output;
  EXPECT_EQ(lines(loaded.output), 1u) << loaded.output;
  EXPECT_EQ(access(pinPath(MapId::ClearTime).c_str(), F_OK), 0);
  EXPECT_EQ(runProgram(ZELK_LOADER_PATH, {"--bogus"}).status, 2);
}

}  // namespace
}  // namespace zelk::testbed
