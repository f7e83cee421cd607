#include "e2e_bed.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "object_loader.h"
#include "policy_tree.h"
#include "self_status.h"

namespace zelk::testbed {

void TrackingTest::SetUp() {
  KernelTest::SetUp();
  if (IsSkipped() || HasFatalFailure()) return;
  loader::LoadOptions options;
  std::string bytes;
  if (objectFile() != nullptr) {
    std::ifstream file(objectFile(), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    ASSERT_FALSE(bytes.empty()) << objectFile();
    options.object = {bytes.data(), bytes.size()};
  }
  const loader::Outcome outcome = loader::load(options);
  ASSERT_EQ(outcome.status, loader::Status::kLoaded) << outcome.message;
  // scaling_cur_freq names the first frequency.
  addMachinePolicy({300000, 600000, 900000, 1200000, 1500000});
  ASSERT_TRUE(com::zelkora::startTrackingCpuFreqTime());
  // Children start once the background thread has ended: its seeding pass deletes the pid
  // entries it finds already made, and ThreadSanitizer lets a child start threads only when
  // forked from a single thread.
  ASSERT_TRUE(threads_.ended(log_)) << "the library's background thread did not end";
}

uint64_t sum(const std::optional<com::zelkora::TimeInStateVector>& times) {
  uint64_t total = 0;
  for (const auto& policy : times.value_or(com::zelkora::TimeInStateVector{})) {
    for (uint64_t time : policy) total += time;
  }
  return total;
}

uint64_t timeOf(const std::optional<com::zelkora::TimeTable>& table, const std::string& name) {
  if (!table) {
    ADD_FAILURE() << "the top or background query failed";
    return 0;
  }
  const auto entry = table->find({name, 0});
  return entry == table->end() ? 0 : entry->second;
}

void ChildLink::tell(int64_t value) {
  if (write(toParent_, &value, sizeof(value)) != sizeof(value)) _exit(120);
}

void ChildLink::awaitGo() {
  char byte;
  if (read(fromParent_, &byte, 1) != 1) _exit(121);
}

Child::Child(const std::function<void(ChildLink&)>& body) {
  int up[2], down[2];
  if (pipe2(up, O_CLOEXEC) != 0 || pipe2(down, O_CLOEXEC) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    close(up[0]);
    close(down[1]);
    ChildLink link(up[1], down[0]);
    body(link);
    _exit(0);
  }
  close(up[1]);
  close(down[0]);
  fromChild_ = up[0];
  toChild_ = down[1];
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (fromChild_ >= 0) close(fromChild_);
  if (toChild_ >= 0) close(toChild_);
}

std::optional<int64_t> Child::next(milliseconds timeout) {
  pollfd fd{fromChild_, POLLIN, 0};
  int64_t value;
  if (poll(&fd, 1, static_cast<int>(timeout.count())) != 1) return std::nullopt;
  if (read(fromChild_, &value, sizeof(value)) != sizeof(value)) return std::nullopt;
  return value;
}

void Child::go() {
  const char byte = 'g';
  if (write(toChild_, &byte, 1) != 1) perror("telling the child to go");
}

int Child::wait(milliseconds timeout) {
  int status = -1;
  if (!waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void setName(const char* name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

void setOomScoreAdj(int adj) {
  char text[16];
  const int length = snprintf(text, sizeof(text), "%d", adj);
  const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (fd < 0 || write(fd, text, length) != length) _exit(122);
  close(fd);
}

void spin(milliseconds duration) {
  timespec start, now;
  clock_gettime(CLOCK_MONOTONIC, &start);
  const auto limit = std::chrono::nanoseconds(duration).count();
  do {
    clock_gettime(CLOCK_MONOTONIC, &now);
  } while ((now.tv_sec - start.tv_sec) * 1000000000ll + (now.tv_nsec - start.tv_nsec) < limit);
}

void sleepFor(milliseconds duration) {
  timespec remaining{static_cast<time_t>(duration.count() / 1000),
                     static_cast<long>(duration.count() % 1000 * 1000000)};
  while (nanosleep(&remaining, &remaining) != 0) {
  }
}

std::optional<uint64_t> runtimeNs(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
  uint64_t runtime;
  if (!(file >> runtime)) return std::nullopt;
  return runtime;
}

bool waitUntilBlocked(pid_t pid, milliseconds timeout) {
  // A task shows S as soon as it means to sleep, before it leaves the CPU, and its runtime is
  // brought up to date only at ticks and switches: so it also has to stop growing.
  constexpr milliseconds kSettled(20);
  std::optional<uint64_t> seen;
  auto seenAt = std::chrono::steady_clock::now();
  return waitUntil(
      [&] {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        const size_t paren = text.rfind(')');
        const bool sleeping = paren != std::string::npos && paren + 2 < text.size() &&
                              (text[paren + 2] == 'S' || text[paren + 2] == 'D');
        const auto runtime = runtimeNs(pid);
        const auto now = std::chrono::steady_clock::now();
        if (!sleeping || runtime != seen) {
          seen = runtime;
          seenAt = now;
          return false;
        }
        return now - seenAt >= kSettled;
      },
      timeout);
}

}  // namespace zelk::testbed
