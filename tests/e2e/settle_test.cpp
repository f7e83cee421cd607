// Settling against the kernel's own clock of a task that never leaves its CPU, and where the
// kernel cannot run the settle program.
#include <bpf/bpf.h>
#include <linux/bpf.h>

#include <algorithm>
#include <cerrno>

#include "clocked_spinner.h"
#include "e2e_bed.h"
#include "maps.h"
#include "zelkcpufreqtime_settle.h"

namespace zelk::testbed {
namespace {

using namespace com::zelkora;

using SettleTest = TrackingTest;

// A spinner alone on CPU 1, read from CPU 0 every 0.25 s: without settling each read lags by what
// it has run since its last switch, up to seconds; settled, every read is what it has run.
TEST_F(SettleTest, EveryReadOfASpinnerThatKeepsItsCpuIsItsClock) {
  if (possibleCpus() < 2) GTEST_SKIP() << "needs two CPUs";
  pinToCpu(0, 0);
  const ClockedSpinner spinner("zelksettle", 1, milliseconds(6500));
  ASSERT_TRUE(spinner.started());
  sleepFor(milliseconds(250));
  uint64_t worst = 0;
  for (int read = 0; read < 24; ++read) {
    const uint64_t before = spinner.clockNs();
    ASSERT_TRUE(settleCpuTimes()) << strerror(errno);
    const uint64_t after = spinner.clockNs();
    const uint64_t counted = sum(getCpuFreqTimesFromProcess("zelksettle", /*flag=*/true));
    // The object counts the CPU's time, interrupts and steal included, which the task's clock
    // leaves out.
    const uint64_t tolerance = std::max<uint64_t>(5 * kMs, before / 100);
    EXPECT_GE(counted + tolerance, before) << "read " << read;
    EXPECT_LE(counted, after + tolerance + spinner.untaskedSinceStart()) << "read " << read;
    worst =
        std::max(worst, counted < before ? before - counted : counted - std::min(counted, after));
    sleepFor(milliseconds(250));
  }
  printf("24 settled reads of a 6 s spinner: at most %.3f ms off its clock\n", worst / 1e6);
  // A CPU that does not exist or is offline has nothing to settle.
  EXPECT_TRUE(settleCpuTimes(std::vector<uint32_t>{4095})) << strerror(errno);
}

// An object without the program (ENOENT), and a kernel that cannot run a program on a chosen CPU,
// which a socket filter under the program's pin stands for: it refuses the flag with EINVAL, as
// kernels before 5.10 do. Settling fails with the reason and the reads go on as before.
TEST_F(SettleTest, WithoutTheProgramOrTheKernelsSupportItFailsWithTheReason) {
  const char* pin = kRunPrograms[0].pinPath;
  ASSERT_EQ(unlink(pin), 0) << strerror(errno);
  errno = 0;
  EXPECT_FALSE(settleCpuTimes());
  EXPECT_EQ(errno, ENOENT);

  bpf_insn exit[2] = {};
  exit[0].code = BPF_ALU64 | BPF_MOV | BPF_K;  // r0 = 0
  exit[1].code = BPF_JMP | BPF_EXIT;
  const android::base::unique_fd filter(
      bpf_prog_load(BPF_PROG_TYPE_SOCKET_FILTER, "zelk_filter", "GPL", exit, 2, nullptr));
  ASSERT_GE(filter.get(), 0) << strerror(errno);
  ASSERT_EQ(bpf_obj_pin(filter.get(), pin), 0) << strerror(errno);
  errno = 0;
  EXPECT_FALSE(settleCpuTimes());
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(settleCpuTimes(std::vector<uint32_t>{0}));
  EXPECT_TRUE(getTotalCpuFreqTimes().has_value());
}

}  // namespace
}  // namespace zelk::testbed
