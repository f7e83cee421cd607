// A private mount namespace per test process: fresh bpffs on /sys/fs/bpf, a tmpfs over the
// cpufreq directory, optionally tracefs. The production paths stay fixed; only the mounts differ.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace zelk::testbed {

struct NamespaceOptions {
  bool tracefs = false;  // mount tracefs on /sys/kernel/tracing (for attaching programs)
};

// Empty string on success, else what failed.
std::string enterPrivateNamespace(const NamespaceOptions& options = {});

// True when running under CI, where a test bed that cannot be set up is a failure, not a skip.
bool inCi();

// A fixture for tests against the real kernel: enters the namespace in SetUp, skipping (or,
// under CI, failing) when that is not possible here.
class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  virtual NamespaceOptions namespaceOptions() const { return {}; }
};

}  // namespace zelk::testbed

// In a test body or SetUp: skip, or fail under CI, with `reason`.
#define ZELK_SKIP_OR_FAIL(reason)                          \
  do {                                                     \
    if (::zelk::testbed::inCi()) GTEST_FAIL() << (reason); \
    GTEST_SKIP() << (reason);                              \
  } while (0)
