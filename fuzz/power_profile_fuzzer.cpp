// Any bytes as a power_profile.xml, with and without a voltage.
#include <cstdint>
#include <string>

#include "model_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  com::zelkora::checkParsed(com::zelkora::parsePowerProfile(text, std::nullopt));
  com::zelkora::checkParsed(com::zelkora::parsePowerProfile(text, 3.8));
  return 0;
}
