// Any bytes as a kernel CPU list: never a crash, and a count never beyond the kernel's limit.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/possible_cpus.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto count = com::zelkora::parseCpuListCount(text);
  if (count && (*count == 0 || *count > (1u << 16))) abort();
  return 0;
}
