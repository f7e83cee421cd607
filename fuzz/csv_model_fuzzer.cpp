// Any bytes as a CSV power model.
#include <cstdint>
#include <string>

#include "model_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  com::zelkora::checkParsed(com::zelkora::parseCsvModel(text));
  return 0;
}
