#include "cpu_pressure.h"

#include <algorithm>

namespace zelk::testbed {

CpuPressure::CpuPressure(unsigned threadsPerCpu) {
  const unsigned cpus = std::max(1u, std::thread::hardware_concurrency());
  for (unsigned i = 0; i < cpus * threadsPerCpu; ++i) {
    threads_.emplace_back([this] {
      while (!stop_.load(std::memory_order_relaxed)) {
      }
    });
  }
}

CpuPressure::~CpuPressure() {
  stop_.store(true);
  for (std::thread& thread : threads_) thread.join();
}

}  // namespace zelk::testbed
