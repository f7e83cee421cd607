// The loader's failures, each caused for real: a verifier rejection, missing capabilities, a
// kernel without BTF, and the command line's exit codes.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "child_process.h"
#include "object_bed.h"
#include "object_loader.h"

namespace zelk::testbed {
namespace {

using loader::Status;
using std::chrono::milliseconds;

class LoaderFailureTest : public KernelTest {};

// The outcome of load() in a forked child after `prepare`, so process-wide changes (dropped
// capabilities) stay there.
std::string loadInChild(const std::function<void()>& prepare) {
  int out[2];
  if (pipe(out) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(out[0]);
    prepare();
    const loader::Outcome outcome = loader::load();
    const std::string text = (outcome.ok() ? "ok: " : "failed: ") + outcome.message;
    if (write(out[1], text.data(), text.size()) < 0) _exit(1);
    _exit(0);
  }
  close(out[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(out[0], buffer, sizeof(buffer))) > 0;) text.append(buffer, n);
  close(out[0]);
  waitpid(pid, nullptr, 0);
  return text;
}

void dropBpfCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2];
  if (syscall(SYS_capget, &header, data) != 0) _exit(2);
  for (int cap : {CAP_SYS_ADMIN, CAP_BPF, CAP_PERFMON}) {
    data[cap / 32].effective &= ~(1u << (cap % 32));
    data[cap / 32].permitted &= ~(1u << (cap % 32));
  }
  if (syscall(SYS_capset, &header, data) != 0) _exit(3);
}

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

TEST_F(LoaderFailureTest, NoPermissionSaysWhichCapabilities) {
  const std::string result = loadInChild(dropBpfCapabilities);
  EXPECT_EQ(result.rfind("failed: no permission to use bpf(2)", 0), 0u) << result;
  EXPECT_NE(result.find("CAP_BPF"), std::string::npos) << result;
  EXPECT_EQ(access(pinPath(MapId::ClearTime).c_str(), F_OK), -1);
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

struct LoaderRun {
  int status;
  std::string out;
  std::string err;
};

// Runs zelk-loader with `args`, after `prepare` in the child.
LoaderRun runLoader(
    std::vector<const char*> args, const std::function<void()>& prepare = [] {}) {
  int out[2], err[2];
  if (pipe(out) != 0 || pipe(err) != 0) return {-1, "", "pipe failed"};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    prepare();
    args.insert(args.begin(), ZELK_LOADER_PATH);
    args.push_back(nullptr);
    execv(ZELK_LOADER_PATH, const_cast<char**>(args.data()));
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  LoaderRun run{-1, "", ""};
  char buffer[4096];
  for (ssize_t n; (n = read(out[0], buffer, sizeof(buffer))) > 0;) run.out.append(buffer, n);
  for (ssize_t n; (n = read(err[0], buffer, sizeof(buffer))) > 0;) run.err.append(buffer, n);
  close(out[0]);
  close(err[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

size_t lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

TEST_F(LoaderFailureTest, CommandLineSaysOneLineAndExitsAccordingly) {
  // Root regains every capability at exec unless the bounding set lacks it.
  const auto withoutBpf = [] {
    for (int cap : {CAP_SYS_ADMIN, CAP_BPF, CAP_PERFMON}) prctl(PR_CAPBSET_DROP, cap, 0, 0, 0);
  };
  const LoaderRun denied = runLoader({"load"}, withoutBpf);
  EXPECT_EQ(denied.status, 1);
  EXPECT_EQ(denied.err.rfind("zelk-loader: no permission", 0), 0u) << denied.err;
  EXPECT_EQ(lines(denied.err), 1u);

  const LoaderRun loaded = runLoader({});
  EXPECT_EQ(loaded.status, 0) << loaded.err;
  EXPECT_EQ(lines(loaded.out), 1u);
  const LoaderRun again = runLoader({"load"});
  EXPECT_EQ(again.status, 0);
  EXPECT_NE(again.out.find("already loaded"), std::string::npos) << again.out;
  EXPECT_EQ(runLoader({"load", "--replace"}).status, 0);
  EXPECT_EQ(runLoader({"unload"}).status, 0);
  EXPECT_EQ(access(pinPath(MapId::ClearTime).c_str(), F_OK), -1);
  EXPECT_EQ(runLoader({"--bogus"}).status, 2);
}

}  // namespace
}  // namespace zelk::testbed
