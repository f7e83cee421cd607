// The loader's map sizes and memory line as functions, without a kernel.
#include "map_sizes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "kernel_memory.h"

namespace zelk::loader {
namespace {

void expectSizes(const MapSizes& sizes, uint32_t names, uint32_t kthreads, uint32_t pids) {
  EXPECT_EQ(sizes.names, names);
  EXPECT_EQ(sizes.cgroups, names);
  EXPECT_EQ(sizes.kthreads, kthreads);
  EXPECT_EQ(sizes.pids, pids);
}

TEST(DefaultMapSizesTest, TypicalMachines) {
  expectSizes(defaultMapSizes(8, 32768), 4096, 320, 32768);       // phone
  expectSizes(defaultMapSizes(2, 4194304), 4096, 272, 32768);     // VM, systemd's pid_max
  expectSizes(defaultMapSizes(64, 4194304), 1664, 768, 32768);    // names give way to kthreads
  expectSizes(defaultMapSizes(96, 4194304), 1024, 1024, 49152);   // pids grow with the CPUs
  expectSizes(defaultMapSizes(128, 4194304), 1024, 1280, 65536);  // at the floor of names
  expectSizes(defaultMapSizes(8192, 4194304), 1024, 4096, 65536);
  expectSizes(defaultMapSizes(128, 40000), 1024, 1280, 40000);  // pid_max bounds the pids
  // A small pid_max still leaves room; no CPUs read as one.
  expectSizes(defaultMapSizes(0, 300), 4096, 264, 4096);
}

TEST(DefaultMapSizesTest, PerCpuMapsStayWithinTheBudgetUnlessAtTheFloor) {
  for (uint32_t cpus = 1; cpus <= 1024; ++cpus) {
    SCOPED_TRACE(cpus);
    const MapSizes sizes = defaultMapSizes(cpus, 32768);
    EXPECT_GE(sizes.names, 1024u);
    EXPECT_LE(sizes.names, 4096u);
    EXPECT_LE(sizes.kthreads, 4096u);
    const uint64_t bytes =
        uint64_t{sizes.names + sizes.kthreads + sizes.cgroups} * kTimeInStateBytes * cpus;
    EXPECT_TRUE(sizes.names == 1024 || bytes <= (64u << 20)) << bytes;
  }
}

TEST(ParseMapSizeTest, DigitsFromOneToWhatMaxEntriesHolds) {
  for (const auto& [text, expected] : std::initializer_list<std::pair<const char*, uint32_t>>{
           {"1", 1}, {"64", 64}, {"007", 7}, {"4294967295", 4294967295u}}) {
    uint32_t entries = 0;
    EXPECT_EQ(parseMapSize("--pids", text, &entries), "") << text;
    EXPECT_EQ(entries, expected) << text;
  }
  for (const char* text : {"0", "", "abc", "12x", "-1", "+5", " 5", "5 ", "0x10", "1e3",
                           "4294967296", "99999999999"}) {
    uint32_t entries = 0;
    EXPECT_EQ(parseMapSize("--kthreads", text, &entries),
              "--kthreads takes a number of entries from 1 to 4294967295")
        << text;
  }
}

TEST(KernelMemoryTest, UnitsAndTheBiggestMapsFirst) {
  EXPECT_EQ(formatBytes(0), "0 B");
  EXPECT_EQ(formatBytes(1023), "1023 B");
  EXPECT_EQ(formatBytes(1024), "1 KiB");
  EXPECT_EQ(formatBytes(655871), "640 KiB");
  EXPECT_EQ(formatBytes(1048575), "1.0 MiB");
  EXPECT_EQ(formatBytes(1048576), "1.0 MiB");
  EXPECT_EQ(formatBytes(12268339), "11.7 MiB");
  EXPECT_EQ(describeKernelMemory(
                {{"small", 1000}, {"b", 2 << 20}, {"big", 3 << 20}, {"a", 2 << 20}}, 28672),
            "kernel memory 7.0 MiB (maps 7.0 MiB, most in big 3.0 MiB, a 2.0 MiB, b 2.0 MiB; "
            "programs 28 KiB)");
  EXPECT_EQ(describeKernelMemory({{"only", 2048}}, 0),
            "kernel memory 2 KiB (maps 2 KiB, most in only 2 KiB; programs 0 B)");
}

TEST(KernelMemoryTest, NoMemlockLineReadsAsZero) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(memlockBytes(fds[0]), 0u);
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(memlockBytes(-1), 0u);
}

}  // namespace
}  // namespace zelk::loader
