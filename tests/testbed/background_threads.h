// Watches the library's background threads from a test. In a test's namespace each one ends by
// itself once the kernel refuses its pressure trigger (no CAP_SYS_RESOURCE): it logs the trigger
// line, then the write failure, then returns.
#pragma once

#include <cstddef>

#include "log_capture.h"

namespace zelk::testbed {

class BackgroundThreads {
 public:
  // Takes the baseline, after a first thread has come and gone so that a thread the runtime
  // starts then (ThreadSanitizer's) is part of it.
  BackgroundThreads();
  // Threads above the baseline right now.
  size_t running() const;
  // Waits (bounded) until every thread's monitor (one per tracking result line) has logged its
  // end, then until the threads are gone. The log wait also orders the threads' work before the
  // test's own for a race detector, which cannot see a thread's end through /proc.
  bool ended(const LogCapture& log) const;

 private:
  size_t baseline_;
};

}  // namespace zelk::testbed
