#include "kernel/pid_seeding.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/clock.h"
#include "core/log.h"
#include "core/map_records.h"
#include "core/state.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime.h"

// The pass reports under the name of the step, not of the helper that logs.
#define SEED_LOGE(fmt, ...) ZELK_LOG_AS(ANDROID_LOG_ERROR, "doInitMap", fmt, ##__VA_ARGS__)
#define SEED_LOGW(fmt, ...) ZELK_LOG_AS(ANDROID_LOG_WARN, "doInitMap", fmt, ##__VA_ARGS__)

namespace com {
namespace zelkora {
namespace {

// The pass keeps at most 14 characters of a name, one fewer than the kernel's 15.
constexpr size_t kNameChars = 14;

// The name record of a comm file's text: its first line, cut to kNameChars, zero-padded.
task_name_value_t taskNameOf(const std::string& text) {
  task_name_value_t record;
  memset(&record, 0, sizeof(record));
  const size_t length = std::min({text.find('\n'), text.size(), kNameChars});
  memcpy(record.comm, text.data(), length);
  return record;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// std::stoi rather than libbase's ParseInt: its two exceptions are what the seeding reports, and
// it reads the number before any trailing text that an oom_score_adj file may hold.
void seedProcess(const std::string& name, uint64_t updateTime) {
  const pid_key_t pid = std::stoi(name, nullptr, 10);
  // Paths from the directory name, not from the parsed number.
  const std::string commPath = "/proc/" + name + "/comm";
  const std::string adjPath = "/proc/" + name + "/oom_score_adj";
  const android::base::unique_fd commFd(open(commPath.c_str(), O_RDONLY | O_CLOEXEC));
  const android::base::unique_fd adjFd(open(adjPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (commFd.get() < 0 || adjFd.get() < 0) {
    SEED_LOGE("Failed to open %s.", (commFd.get() < 0 ? commPath : adjPath).c_str());
    return;
  }
  // A file that opens but cannot be read counts as empty.
  std::string commText, adjText;
  android::base::ReadFdToString(commFd.get(), &commText);
  android::base::ReadFdToString(adjFd.get(), &adjText);

  const task_name_value_t taskName = taskNameOf(commText);
  adjText = firstLine(adjText);
  if (!isNumber(adjText)) return;
  const adj_value_t adj = static_cast<adj_value_t>(std::stoi(adjText, nullptr, 10));

  // Element operations only, which take no lock.
  const int commMap = lockFreeFd(gProCommFd).get();
  const int updateMap = lockFreeFd(gPidAdjUpdateFd).get();
  const int adjMap = lockFreeFd(gProAdjFd).get();
  // NOEXIST: an entry made by the kernel side, or an earlier pass, is newer than anything read
  // here.
  errno = 0;
  if (mapUpdateElem(commMap, &pid, &taskName, BPF_NOEXIST) == 0 &&
      mapUpdateElem(updateMap, &pid, &updateTime, BPF_NOEXIST) == 0 &&
      mapUpdateElem(adjMap, &pid, &adj, BPF_NOEXIST) == 0) {
    return;
  }
  SEED_LOGW("Failed to write %d to gProCommFd, gPidAdjUpdateFd and gProAdjFd, reason: %s.", pid,
            strerror(errno));
  // A half-written pid would pair a name with the wrong adj or time: leave it to the kernel side.
  mapDeleteElem(commMap, &pid);
  mapDeleteElem(updateMap, &pid);
  mapDeleteElem(adjMap, &pid);
}

}  // namespace

void doInitMap() {
  if (!gGlobalsReady.load(std::memory_order_acquire) || !gTrackingStarted.load()) return;
  const uint64_t updateTime = getTimeSinceBoot();
  const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  if (!proc) {
    SEED_LOGE("Cannot open /proc.");
    return;
  }
  while (const struct dirent* entry = readdir(proc.get())) {
    const std::string name = entry->d_name;
    if (!isNumber(name)) continue;  // ".", "..", "self" and the like
    try {
      seedProcess(name, updateTime);
    } catch (const std::invalid_argument&) {
      SEED_LOGE("invalid string.");
    } catch (const std::out_of_range&) {
      SEED_LOGE("out of range.");
    }
  }
}

}  // namespace zelkora
}  // namespace com
