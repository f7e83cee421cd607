// Real CPU pressure: more spinning threads than CPUs, so that runnable tasks wait for a CPU for
// as long as the object lives.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

namespace zelk::testbed {

class CpuPressure {
 public:
  explicit CpuPressure(unsigned threadsPerCpu = 3);
  ~CpuPressure();
  CpuPressure(const CpuPressure&) = delete;
  CpuPressure& operator=(const CpuPressure&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace zelk::testbed
