#include "background_threads.h"

#include <chrono>
#include <thread>

#include "self_status.h"

namespace zelk::testbed {

using namespace std::chrono_literals;

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
