// isNumber against a plain restatement of its rule: an optional '-', then one or more ASCII
// digits, whatever the locale and whatever bytes follow.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zelkcpufreqtime.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
  const size_t firstDigit = i;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
  const bool expected = i == text.size() && i > firstDigit;
  if (com::zelkora::isNumber(text) != expected) abort();
  return 0;
}
