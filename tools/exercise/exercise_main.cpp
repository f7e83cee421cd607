// zelk-exercise: configures a pinned zelkCputimeInState like the library (one policy over all
// CPUs), attaches its programs and runs a scheduler-heavy load: pairs of threads passing a byte
// back and forth through pipes, so that nearly every pass is a context switch; with --churn also
// a stream of short-lived processes that rename themselves and change their oom_score_adj, for
// the other programs. The programs' own statistics (kernel.bpf_stats_enabled) then give their
// cost per event.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "core/decimal.h"
#include "object_setup.h"

namespace {

std::atomic<bool> gStop{false};
std::atomic<uint64_t> gPasses{0};
std::atomic<uint64_t> gProcesses{0};

void pingPong(int in, int out, bool starts) {
  char byte = 0;
  uint64_t passes = 0;
  if (starts && write(out, &byte, 1) != 1) return;
  while (!gStop.load(std::memory_order_relaxed)) {
    if (read(in, &byte, 1) != 1 || write(out, &byte, 1) != 1) break;
    ++passes;
  }
  gPasses += passes;
}

void writeAdj(const char* adj) {
  const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (fd < 0 || write(fd, adj, strlen(adj)) < 0) _exit(1);
  close(fd);
}

void churn() {
  uint64_t processes = 0;
  while (!gStop.load(std::memory_order_relaxed)) {
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_NAME, "zelkchurn", 0, 0, 0);
      writeAdj("900");
      writeAdj("0");
      _exit(0);
    }
    if (pid < 0 || waitpid(pid, nullptr, 0) != pid) break;
    ++processes;
  }
  gProcesses = processes;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned seconds = 10;
  unsigned pairs = 8;
  bool churning = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--churn") == 0) {
      churning = true;
    } else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      if (!com::zelkora::parseDecimal(argv[++i], &seconds, 86400u)) seconds = 0;
    } else if (strcmp(argv[i], "--pairs") == 0 && i + 1 < argc) {
      if (!com::zelkora::parseDecimal(argv[++i], &pairs, 1024u)) pairs = 0;
    } else {
      seconds = 0;
    }
  }
  if (seconds == 0 || pairs == 0) {
    fprintf(stderr, "usage: zelk-exercise [--seconds N] [--pairs N] [--churn]\n");
    return 2;
  }
  std::string error = zelk::exercise::configure(
      {zelk::exercise::wholeMachinePolicy({300000, 600000, 900000}, /*currentIndex=*/2)});
  zelk::exercise::Attachment attachment;
  if (error.empty()) error = attachment.attach();
  if (!error.empty()) {
    fprintf(stderr, "zelk-exercise: %s\n", error.c_str());
    return 1;
  }

  std::vector<std::thread> threads;
  std::vector<int> pipes;
  for (unsigned i = 0; i < pairs; ++i) {
    int there[2], back[2];
    if (pipe2(there, O_CLOEXEC) != 0 || pipe2(back, O_CLOEXEC) != 0) {
      perror("zelk-exercise: pipe");
      return 1;
    }
    pipes.insert(pipes.end(), {there[0], there[1], back[0], back[1]});
    threads.emplace_back(pingPong, back[0], there[1], true);
    threads.emplace_back(pingPong, there[0], back[1], false);
  }
  if (churning) threads.emplace_back(churn);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  gStop = true;
  // Closing the write ends wakes every blocked reader.
  for (size_t i = 1; i < pipes.size(); i += 2) close(pipes[i]);
  for (std::thread& thread : threads) thread.join();
  printf("%u thread pairs, %llu passes, %llu short-lived processes in %u s\n", pairs,
         static_cast<unsigned long long>(gPasses.load()),
         static_cast<unsigned long long>(gProcesses.load()), seconds);
  return 0;
}
