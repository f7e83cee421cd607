#include "self_status.h"

#include <android-base/file.h>
#include <dirent.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <regex>
#include <thread>

namespace zelk::testbed {
namespace {

using namespace std::chrono_literals;

std::mutex gMutex;
std::vector<LogLine> gLines;

void capture(const __android_logger_data* data, const char* message) {
  std::lock_guard<std::mutex> lock(gMutex);
  gLines.push_back({data->priority, message});
}

size_t countEntries(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path), closedir);
  if (!dir) return 0;
  size_t count = 0;
  while (const struct dirent* entry = readdir(dir.get())) {
    if (entry->d_name[0] != '.') ++count;
  }
  return count;
}

size_t threadCount() { return countEntries("/proc/self/task"); }

}  // namespace

LogCapture::LogCapture() {
  __android_log_set_logger(capture);
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  clear();
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(gMutex);
  return gLines;
}

size_t LogCapture::count(const std::string& needle) const {
  size_t found = 0;
  for (const LogLine& line : lines()) found += line.text.find(needle) != std::string::npos;
  return found;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(gMutex);
  gLines.clear();
}

std::string withoutLine(const std::string& text) {
  static const std::regex prefix(R"(^\[([A-Za-z_]+):[0-9]+\] )");
  return std::regex_replace(text, prefix, "[$1:N] ");
}

size_t openDescriptorCount() { return countEntries("/proc/self/fd") - 1; }

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

char taskState(const std::string& statPath) {
  std::string stat;
  if (!android::base::ReadFileToString(statPath, &stat)) return 0;
  // The state follows the command name, which is in parentheses.
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() ? stat[close + 2] : 0;
}

bool waitUntilSleeping(pid_t tid, std::chrono::milliseconds timeout) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  return waitUntil([&] { return taskState(path) == 'S'; }, timeout);
}

BackgroundThreads::BackgroundThreads() {
  std::thread([] {}).join();
  baseline_ = threadCount();
}

size_t BackgroundThreads::running() const {
  const size_t now = threadCount();
  return now > baseline_ ? now - baseline_ : 0;
}

bool BackgroundThreads::ended(const LogCapture& log) const {
  // Every call that logs the tracking result starts one thread, and every thread's monitor ends
  // with an error line.
  const auto allEnded = [&] {
    size_t started = 0, finished = 0;
    for (const LogLine& line : log.lines()) {
      started += line.text.find("zelkCputimeInState tracking ") != std::string::npos;
      finished += line.priority == ANDROID_LOG_ERROR && line.text.rfind("[doPollPsi:", 0) == 0;
    }
    return finished >= started;
  };
  return waitUntil(allEnded, 10s) && waitUntil([&] { return running() == 0; }, 10s);
}

}  // namespace zelk::testbed
