#include "tracking_bed.h"

#include <ctime>
#include <fstream>
#include <iterator>

#include "object_loader.h"

namespace zelk::testbed {

void TrackingTest::SetUp() {
  KernelTest::SetUp();
  if (IsSkipped() || HasFatalFailure()) return;
  loader::LoadOptions options;
  std::string bytes;
  if (objectFile() != nullptr) {
    std::ifstream file(objectFile(), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    ASSERT_FALSE(bytes.empty()) << objectFile();
    options.object = {bytes.data(), bytes.size()};
  }
  const loader::Outcome outcome = loader::load(options);
  ASSERT_EQ(outcome.status, loader::Status::kLoaded) << outcome.message;
  addPolicies();
  ASSERT_TRUE(com::zelkora::startTrackingCpuFreqTime());
  // Children start once the background thread has ended: its seeding pass deletes the pid
  // entries it finds already made, as the kernel makes them for every new process, and
  // ThreadSanitizer lets a child start threads only when forked from a single thread.
  ASSERT_TRUE(threads_.ended(log_)) << "the library's background thread did not end";
}

uint64_t sum(const std::optional<com::zelkora::TimeInStateVector>& times) {
  uint64_t total = 0;
  for (const auto& policy : times.value_or(com::zelkora::TimeInStateVector{})) {
    for (uint64_t time : policy) total += time;
  }
  return total;
}

uint64_t timeOf(const std::optional<com::zelkora::TimeTable>& table, const std::string& name) {
  if (!table) {
    ADD_FAILURE() << "the top or background query failed";
    return 0;
  }
  const auto entry = table->find({name, 0});
  return entry == table->end() ? 0 : entry->second;
}

uint64_t monotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec;
}

}  // namespace zelk::testbed
