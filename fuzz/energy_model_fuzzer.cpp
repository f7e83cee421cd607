// Any bytes as an Energy Model directory: records separated by NUL bytes, each "path=content"
// (a record without '=' is a path with empty content, as a state directory is).
#include <cstdint>
#include <string>

#include "model_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  com::zelkora::FileTree files;
  size_t start = 0;
  while (start <= input.size()) {
    size_t end = input.find('\0', start);
    if (end == std::string::npos) end = input.size();
    const std::string record = input.substr(start, end - start);
    const size_t equals = record.find('=');
    files[record.substr(0, equals)] = equals == std::string::npos ? "" : record.substr(equals + 1);
    start = end + 1;
  }
  com::zelkora::checkParsed(com::zelkora::parseEnergyModel(files));
  return 0;
}
