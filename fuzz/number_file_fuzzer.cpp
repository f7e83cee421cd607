// Any bytes as the text of a sysfs number file: never a crash, and every number returned fits in
// 32 bits and comes from a token that a strict reparse accepts.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/number_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto numbers = com::zelkora::parseNumbers(text);
  if (!numbers) return 0;
  for (uint64_t n : *numbers) {
    if (n > 4294967295u) abort();
  }
  // Parsing is a function of the text: the same text gives the same numbers.
  if (com::zelkora::parseNumbers(text) != numbers) abort();
  return 0;
}
