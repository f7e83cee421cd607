#include "log_capture.h"

#include <android/log.h>

#include <mutex>
#include <regex>

namespace zelk::testbed {
namespace {

std::mutex gMutex;
std::vector<LogLine> gLines;

void capture(const __android_logger_data* data, const char* message) {
  std::lock_guard<std::mutex> lock(gMutex);
  gLines.push_back({data->priority, data->tag ? data->tag : "", message});
}

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

}  // namespace zelk::testbed
