// The bpf(2) wrappers, the configuration-map lock and the program retrieval, on real maps.
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/bpf_lock.h"
#include "kernel/bpf_syscall.h"
#include "kernel/tracepoint_program.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"

namespace com::zelkora {
namespace {

using zelk::testbed::MapId;

class BpfAccessTest : public zelk::testbed::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  int fd(MapId id) const { return maps_.fd(id); }
  zelk::testbed::Maps maps_;
};

TEST_F(BpfAccessTest, ElementOperationsFollowTheKernelErrnoContract) {
  const int map = fd(MapId::TopTime);
  process_info_t key = zelk::testbed::processInfo("camera");
  process_info_t next;
  uint64_t value = 0;

  errno = 0;
  EXPECT_EQ(mapGetNextKey(map, nullptr, &next), -1);
  EXPECT_EQ(errno, ENOENT) << "an empty map has no first key";
  EXPECT_EQ(mapLookupElem(map, &key, &value), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(mapUpdateElem(map, &key, &value, BPF_EXIST), -1);
  EXPECT_EQ(errno, ENOENT) << "BPF_EXIST must not create";

  value = 42;
  ASSERT_EQ(mapUpdateElem(map, &key, &value, BPF_NOEXIST), 0);
  EXPECT_EQ(mapUpdateElem(map, &key, &value, BPF_NOEXIST), -1);
  EXPECT_EQ(errno, EEXIST);
  value = 0;
  ASSERT_EQ(mapLookupElem(map, &key, &value), 0);
  EXPECT_EQ(value, 42u);

  ASSERT_EQ(mapGetNextKey(map, nullptr, &next), 0);
  EXPECT_STREQ(next.comm, "camera");
  EXPECT_EQ(mapGetNextKey(map, &next, &next), -1);
  EXPECT_EQ(errno, ENOENT) << "the walk ends with ENOENT";

  ASSERT_EQ(mapDeleteElem(map, &key), 0);
  EXPECT_EQ(mapDeleteElem(map, &key), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(BpfAccessTest, PerCpuLookupFillsOneBlockPerPossibleCpu) {
  const int map = fd(MapId::ProcessTime);
  const process_key_t key = zelk::testbed::processKey("surfaceflinger", 1);
  zelk::testbed::PerCpuValue written = zelk::testbed::perCpuValue();
  for (size_t cpu = 0; cpu < written.size(); ++cpu) written[cpu].slot[31] = 100 + cpu;
  ASSERT_TRUE(zelk::testbed::update(map, &key, written.data()));

  zelk::testbed::PerCpuValue read = zelk::testbed::perCpuValue();
  ASSERT_EQ(mapLookupElem(map, &key, read.data()), 0);
  for (size_t cpu = 0; cpu < read.size(); ++cpu) EXPECT_EQ(read[cpu].slot[31], 100 + cpu);
}

TEST_F(BpfAccessTest, FrozenMapRefusesWritesFromUserSpace) {
  const int map = fd(MapId::BgTime);
  const process_info_t key = zelk::testbed::processInfo("a");
  const uint64_t value = 1;
  ASSERT_TRUE(zelk::testbed::update(map, &key, &value));
  ASSERT_EQ(maps_.freeze(MapId::BgTime), "");
  EXPECT_EQ(mapDeleteElem(map, &key), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(mapUpdateElem(map, &key, &value, BPF_ANY), -1);
  EXPECT_EQ(errno, EPERM);
  uint64_t read = 0;
  EXPECT_EQ(mapLookupElem(map, &key, &read), 0) << "reads still work";
}

TEST_F(BpfAccessTest, ObjGetHonoursOpenModes) {
  const std::string path = zelk::testbed::pinPath(MapId::CpuPolicy);
  const uint32_t cpu = 0;
  uint32_t policy = 7;
  android::base::unique_fd writeOnly(bpfObjGet(path.c_str(), BPF_F_WRONLY));
  ASSERT_GE(writeOnly.get(), 0);
  EXPECT_EQ(mapUpdateElem(writeOnly.get(), &cpu, &policy, BPF_ANY), 0);
  EXPECT_EQ(mapLookupElem(writeOnly.get(), &cpu, &policy), -1);
  EXPECT_EQ(errno, EPERM) << "a write-only descriptor cannot read";

  errno = 0;
  EXPECT_LT(bpfObjGet("/sys/fs/bpf/map_zelkCputimeInState_nothing", 0), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(BpfAccessTest, BpfLockPassesNegativeDescriptorsThrough) {
  errno = 1234;
  EXPECT_EQ(android::bpf::bpfLock(-7, F_WRLCK), -7);
  EXPECT_EQ(errno, 1234) << "no system call for a negative descriptor";
}

TEST_F(BpfAccessTest, WriteLockExcludesOtherOpenFileDescriptionsUntilClosed) {
  const std::string path = zelk::testbed::pinPath(MapId::FreqToIdx);
  android::base::unique_fd first(android::bpf::mapRetrieveWO(path.c_str()));
  ASSERT_GE(first.get(), 0);

  const int second = android::bpf::mapRetrieveWO(path.c_str());
  EXPECT_LT(second, 0);
  EXPECT_TRUE(errno == EAGAIN || errno == EACCES) << strerror(errno);

  // Another process contends the same way: the lock belongs to the open file description.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(android::bpf::mapRetrieveWO(path.c_str()) < 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child got the lock";

  // Other maps are not affected: the lock sits at the map's own id.
  android::base::unique_fd other(
      android::bpf::mapRetrieveWO(zelk::testbed::pinPath(MapId::CpuPolicy).c_str()));
  EXPECT_GE(other.get(), 0);

  first.reset();
  android::base::unique_fd again(android::bpf::mapRetrieveWO(path.c_str()));
  EXPECT_GE(again.get(), 0) << "closing the holder releases the lock";
}

TEST_F(BpfAccessTest, AttachingAMissingProgramLogsTheRetrieveFailure) {
  zelk::testbed::LogCapture log;
  EXPECT_LT(retrieveProgramFd("zelkCputimeInState", "sched", "sched_switch"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(attachTracepointProgram("zelkCputimeInState", "sched", "sched_switch"));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(lines[0].tag, "libzelkcpufreqtime");
  EXPECT_EQ(zelk::testbed::withoutLine(lines[0].text),
            "[attachTracepointProgram:N] Failed to retrieve program sched_switch, "
            "No such file or directory");
}

}  // namespace
}  // namespace com::zelkora
