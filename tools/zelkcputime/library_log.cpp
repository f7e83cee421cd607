#include "library_log.h"

#include <android/log.h>

#include <cstdio>

namespace zelk::cli {
namespace {

void toStderr(const __android_logger_data* data, const char* message) {
  fprintf(stderr, "%s: %s\n", data->tag != nullptr ? data->tag : "log", message);
}

}  // namespace

void routeLibraryLog(bool verbose) {
  __android_log_set_logger(toStderr);
  __android_log_set_minimum_priority(verbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_ERROR);
}

}  // namespace zelk::cli
