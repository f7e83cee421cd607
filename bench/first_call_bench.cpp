// The first call of a process: the lazy initialisation (policy discovery, nine map opens) plus
// getCpuFreqs. The library's state is set once per process, so every sample is a fresh process:
// this binary started again with --first-call-child, inside the same mount namespace.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_world.h"
#include "registry.h"
#include "zelkcpufreqtime.h"

namespace zelk::bench {
namespace {

// The child's first-call time in nanoseconds, or -1.
long long timeFirstCallInChild() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    dup2(fds[1], STDOUT_FILENO);
    execl("/proc/self/exe", "zelk_bench", "--first-call-child", nullptr);
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buf[64];
  for (ssize_t n; (n = read(fds[0], buf, sizeof(buf))) > 0;) out.append(buf, n);
  close(fds[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return -1;
  }
  return strtoll(out.c_str(), nullptr, 10);
}

void firstCallBenchmark(benchmark::State& state) {
  for (auto _ : state) {
    const long long ns = timeFirstCallInChild();
    if (ns < 0) {
      markFailed();
      state.SkipWithError("the first call failed in the child");
      return;
    }
    state.SetIterationTime(static_cast<double>(ns) * 1e-9);
  }
}

}  // namespace

int runFirstCallChild() {
  const auto start = std::chrono::steady_clock::now();
  const auto freqs = com::zelkora::getCpuFreqs();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  printf("%lld\n", static_cast<long long>(
                       std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
  // One policy per possible CPU, as the parent built the tree.
  return freqs && freqs->size() == testbed::possibleCpus() ? 0 : 1;
}

void registerFirstCallBenchmark(const BenchOptions& options) {
  auto* bench = benchmark::RegisterBenchmark("firstCall/getCpuFreqs", firstCallBenchmark);
  configure(bench, options);
  // Each sample starts a process: a fixed, small count.
  if (!options.smoke) bench->Iterations(50);
}

}  // namespace zelk::bench
