// Two processes start tracking at the same moment: the one that holds the configuration maps'
// write locks configures; the other fails cleanly, and succeeds once the first has gone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "background_threads.h"
#include "log_capture.h"
#include "maps.h"
#include "namespace.h"
#include "policy_tree.h"
#include "programs.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

using namespace std::chrono_literals;

class ConcurrentStartTest : public zelk::testbed::KernelTest {
 protected:
  zelk::testbed::NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

TEST_F(ConcurrentStartTest, SecondProcessFailsAtTheWriteLockWhileTheFirstConfigures) {
  zelk::testbed::Maps maps;
  ASSERT_EQ(maps.create(), "");
  ASSERT_EQ(zelk::testbed::pinPrograms(), "");
  zelk::testbed::addMachinePolicy({100, 200});
  // The first process reads the current frequency while it holds all four locks; a FIFO holds it
  // there until the second process has tried.
  const std::string curFreq = std::string(zelk::testbed::kCpufreqDir) + "/policy0/scaling_cur_freq";
  ASSERT_EQ(unlink(curFreq.c_str()), 0);
  ASSERT_EQ(mkfifo(curFreq.c_str(), 0600), 0);

  int release[2];
  ASSERT_EQ(pipe2(release, O_CLOEXEC), 0);
  const pid_t first = fork();
  ASSERT_GE(first, 0);
  if (first == 0) {
    const bool started = startTrackingCpuFreqTime();
    char byte;  // keeps the programs attached until the test is done with the second process
    (void)!read(release[0], &byte, 1);
    _exit(started ? 0 : 1);
  }
  // The first process is in the FIFO's open once a writer can open it without blocking.
  int fifo = -1;
  ASSERT_TRUE(zelk::testbed::waitUntil(
      [&] { return (fifo = open(curFreq.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }, 10s));

  zelk::testbed::LogCapture log;
  zelk::testbed::BackgroundThreads threads;
  ASSERT_TRUE(getCpuFreqs().has_value());  // the nine maps this process keeps open
  const size_t fds = zelk::testbed::openDescriptorCount();
  EXPECT_FALSE(startTrackingCpuFreqTime());
  EXPECT_TRUE(log.lines().empty()) << "a lock held elsewhere fails silently";
  EXPECT_EQ(threads.running(), 0u) << "no thread for a start that did not configure";
  EXPECT_EQ(zelk::testbed::openDescriptorCount(), fds);

  ASSERT_EQ(write(fifo, "100\n", 4), 4);
  close(fifo);
  ASSERT_EQ(write(release[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(first, &status, 0), first);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the first process configured";

  // Its attachments went with it; the frequency file is a plain file again.
  unlink(curFreq.c_str());
  zelk::testbed::writeCpufreqFile("policy0/scaling_cur_freq", "200\n");
  EXPECT_TRUE(startTrackingCpuFreqTime());
  EXPECT_TRUE(threads.ended(log));
}

}  // namespace
}  // namespace com::zelkora
