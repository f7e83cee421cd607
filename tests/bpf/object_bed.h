// Test bed for the kernel object: the object loaded and pinned in the test's private bpffs, and
// readers of its maps. Tests that go through the library later reuse it as they are.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "maps.h"
#include "namespace.h"

namespace zelk::testbed {

// Each test in a private namespace with bpffs and tracefs and a freshly loaded object.
class ObjectTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override;
  void SetUp() override;

  // A read-write descriptor of a pinned map, owned by the fixture.
  int mapFd(MapId id);

 private:
  std::map<MapId, android::base::unique_fd> fds_;
};

// One per-CPU time-in-state value, or nothing when the key has no entry.
std::optional<PerCpuValue> lookupTimes(int fd, const void* key);
// Time of one slot summed over CPUs, and of all slots.
uint64_t slotTime(const PerCpuValue& value, size_t slot);
uint64_t totalTime(const PerCpuValue& value);

// Every key of a process or kernel-thread map, and the name it holds.
std::vector<com::zelkora::process_key_t> timeKeys(int fd);
std::string nameOf(const com::zelkora::process_key_t& key);

// A plain u64 value (top/bg totals, times), or nothing when the key has no entry.
std::optional<uint64_t> lookupU64(int fd, const void* key);

uint64_t monotonicNs();

}  // namespace zelk::testbed
