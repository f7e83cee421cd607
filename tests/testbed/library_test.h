// The bed of the library's tests: a fixture that enters a private namespace with tracefs, pins
// the thirteen maps and captures the log, and at the end waits for the background threads that a
// tracking start left running (they use the library's descriptors, which close at exit).
#pragma once

#include "maps.h"
#include "namespace.h"
#include "programs.h"
#include "self_status.h"
#include "zelkcpufreqtime.h"

namespace zelk::testbed {

class LibraryTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(maps_.create(), "");
  }
  void TearDown() override { threads_.ended(log_); }

  Maps maps_;
  LogCapture log_;
  BackgroundThreads threads_;
};

}  // namespace zelk::testbed
