// zelk-exercise: configures a pinned zelkCputimeInState like the library (one policy over all
// CPUs), attaches its programs and runs a scheduler-heavy load: pairs of threads passing a byte
// back and forth through pipes, so that nearly every pass is a context switch; with --churn also
// a stream of short-lived processes that rename themselves and change their oom_score_adj, for
// the other programs. The programs' own statistics (kernel.bpf_stats_enabled) then give their
// cost per event; with --settle-runs, it then times the settle program as a caller sees it.
#include <bpf/bpf.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/catalogue.h"
#include "core/decimal.h"
#include "object_setup.h"
#include "syscall/bpf_syscall.h"

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

// What settling costs the caller, with the programs attached and the load ended: per CPU (the
// caller's own runs the program in place, another's through an interrupt that may wake it from
// idle) and for every CPU in turn, as the library's settle does. Mean microseconds of `runs`.
std::string settleCost(unsigned runs) {
  const int fd = bpf_obj_get(com::zelkora::kRunPrograms[0].pinPath);
  if (fd < 0) return std::string("cannot open the settle program: ") + strerror(errno);
  const auto meanUs = [&](const std::vector<uint32_t>& cpus) {
    const auto start = std::chrono::steady_clock::now();
    for (unsigned i = 0; i < runs; ++i) {
      for (uint32_t cpu : cpus) {
        if (com::zelkora::progTestRunOnCpu(fd, cpu) != 0) return -1.0;
      }
    }
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
               .count() /
           runs;
  };
  const int self = sched_getcpu();
  std::vector<uint32_t> all;
  std::string line =
      "settle (mean of " + std::to_string(runs) + ", caller on CPU " + std::to_string(self) + "):";
  char text[64];
  for (uint32_t cpu = 0; cpu < std::thread::hardware_concurrency(); ++cpu) {
    all.push_back(cpu);
    snprintf(text, sizeof(text), " CPU %u %.2f us;", cpu, meanUs({cpu}));
    line += text;
  }
  snprintf(text, sizeof(text), " all %zu CPUs %.2f us", all.size(), meanUs(all));
  close(fd);
  return line + text;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned seconds = 10;
  unsigned pairs = 8;
  bool churning = false;
  unsigned settleRuns = 0;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--churn") == 0) {
      churning = true;
    } else if (strcmp(argv[i], "--settle-runs") == 0 && i + 1 < argc) {
      if (!com::zelkora::parseDecimal(argv[++i], &settleRuns, 1000000u)) seconds = 0;
    } else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
      if (!com::zelkora::parseDecimal(argv[++i], &seconds, 86400u)) seconds = 0;
    } else if (strcmp(argv[i], "--pairs") == 0 && i + 1 < argc) {
      if (!com::zelkora::parseDecimal(argv[++i], &pairs, 1024u)) pairs = 0;
    } else {
      seconds = 0;
    }
  }
  if (seconds == 0 || pairs == 0) {
    fprintf(stderr, "usage: zelk-exercise [--seconds N] [--pairs N] [--churn] [--settle-runs N]\n");
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
  if (settleRuns > 0) printf("%s\n", settleCost(settleRuns).c_str());
  return 0;
}
