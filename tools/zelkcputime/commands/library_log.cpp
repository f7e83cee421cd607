#include "commands/library_log.h"

#include <android/log.h>

#include <cstdio>
#include <vector>

#include "core/mutex.h"

namespace zelk::cli {
namespace {

constexpr char kTriggerFailed[] = "Failed to write trigger, reason: ";
// The seeding pass lists /proc, then opens each process's files: one that ends in between is
// routine on a live machine (as root nothing else keeps those files shut), not a failure to show.
constexpr char kSeedingOpenFailed[] = "[doInitMap:";
constexpr char kProcOpenFailed[] = "] Failed to open /proc/";

bool endedWhileSeeded(const std::string& message) {
  return message.rfind(kSeedingOpenFailed, 0) == 0 &&
         message.find(kProcOpenFailed) != std::string::npos;
}

// Lines come from the library's background thread too.
com::zelkora::Mutex gMutex;
bool gVerbose GUARDED_BY(gMutex) = false;
bool gHeld GUARDED_BY(gMutex) = false;
bool gTriggerNoted GUARDED_BY(gMutex) = false;
bool gNotesDropped GUARDED_BY(gMutex) = false;
// Each line, and whether it is a note.
std::vector<std::pair<std::string, bool>> gHeldLines GUARDED_BY(gMutex);

void emit(const std::string& line, bool note) REQUIRES(gMutex) {
  if (note && gNotesDropped) return;
  if (gHeld) {
    gHeldLines.emplace_back(line, note);
  } else {
    fprintf(stderr, "%s\n", line.c_str());
  }
}

void toStderr(const __android_logger_data* data, const char* message) {
  com::zelkora::MutexLock lock(gMutex);
  if (!gVerbose) {
    if (endedWhileSeeded(message)) return;
    const std::string own = expectedConditionText(message);
    if (!own.empty()) {
      // Once: the library retries the trigger on each start.
      if (!gTriggerNoted) emit(own, /*note=*/true);
      gTriggerNoted = true;
      return;
    }
  }
  emit(std::string(data->tag != nullptr ? data->tag : "log") + ": " + message, /*note=*/false);
}

}  // namespace

std::string expectedConditionText(const std::string& message) {
  const size_t at = message.find(kTriggerFailed);
  if (at == std::string::npos) return "";
  std::string reason = message.substr(at + sizeof(kTriggerFailed) - 1);
  if (!reason.empty() && reason.back() == '.') reason.pop_back();
  return "zelkcputime: note: the kernel refused a CPU pressure trigger (" + reason +
         "; setting one needs CAP_SYS_RESOURCE), so the library's pressure events are off; "
         "counting is unaffected (-v shows the library's line)";
}

void routeLibraryLog(bool verbose) {
  {
    com::zelkora::MutexLock lock(gMutex);
    gVerbose = verbose;
  }
  __android_log_set_logger(toStderr);
  __android_log_set_minimum_priority(verbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_ERROR);
}

void tellNote(const std::string& line) {
  com::zelkora::MutexLock lock(gMutex);
  emit(line, /*note=*/true);
}

void holdLibraryLog() {
  com::zelkora::MutexLock lock(gMutex);
  gHeld = true;
}

void releaseLibraryLog(bool withNotes) {
  com::zelkora::MutexLock lock(gMutex);
  gHeld = false;
  gNotesDropped = !withNotes;
  for (const auto& [line, note] : gHeldLines) {
    if (withNotes || !note) fprintf(stderr, "%s\n", line.c_str());
  }
  gHeldLines.clear();
}

}  // namespace zelk::cli
