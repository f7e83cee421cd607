#include "object_bed.h"

#include <bpf/bpf.h>

#include <cstring>
#include <ctime>

#include "object_loader.h"

namespace zelk::testbed {

NamespaceOptions ObjectTest::namespaceOptions() const {
  NamespaceOptions options;
  options.tracefs = true;
  return options;
}

void ObjectTest::SetUp() {
  KernelTest::SetUp();
  if (IsSkipped() || HasFatalFailure()) return;
  const loader::Outcome outcome = loader::load();
  ASSERT_EQ(outcome.status, loader::Status::kLoaded) << outcome.message;
}

int ObjectTest::mapFd(MapId id) {
  android::base::unique_fd& fd = fds_[id];
  if (fd.get() < 0) {
    fd.reset(bpf_obj_get(pinPath(id).c_str()));
    EXPECT_GE(fd.get(), 0) << "opening " << pinPath(id) << ": " << strerror(errno);
  }
  return fd.get();
}

std::optional<PerCpuValue> lookupTimes(int fd, const void* key) {
  PerCpuValue value = perCpuValue();
  if (bpf_map_lookup_elem(fd, key, value.data()) != 0) return std::nullopt;
  return value;
}

uint64_t slotTime(const PerCpuValue& value, size_t slot) {
  uint64_t sum = 0;
  for (const auto& block : value) sum += block.slot[slot];
  return sum;
}

uint64_t totalTime(const PerCpuValue& value) {
  uint64_t sum = 0;
  for (size_t slot = 0; slot < com::zelkora::kFreqSlots; ++slot) sum += slotTime(value, slot);
  return sum;
}

std::vector<com::zelkora::process_key_t> timeKeys(int fd) {
  std::vector<com::zelkora::process_key_t> keys;
  com::zelkora::process_key_t next;
  while (bpf_map_get_next_key(fd, keys.empty() ? nullptr : &keys.back(), &next) == 0) {
    keys.push_back(next);
  }
  return keys;
}

std::string nameOf(const com::zelkora::process_key_t& key) {
  return std::string(key.comm, strnlen(key.comm, sizeof(key.comm)));
}

std::optional<uint64_t> lookupU64(int fd, const void* key) {
  uint64_t value = 0;
  if (bpf_map_lookup_elem(fd, key, &value) != 0) return std::nullopt;
  return value;
}

uint64_t monotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec;
}

}  // namespace zelk::testbed
