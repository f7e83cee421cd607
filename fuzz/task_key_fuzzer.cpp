// Any name through the two key conversions: the map key holds exactly the first 16 bytes,
// zero-padded, and reading it back gives the name up to its first NUL, cut to 16 bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "query/task_key.h"

using namespace com::zelkora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool flag = data[0] & 1;
  const std::string name(reinterpret_cast<const char*>(data + 1), size - 1);
  const process_key_t key = mapKeyFromName(name, flag);
  if (key.flag != (flag ? 1u : 0u)) abort();
  const size_t kept = name.size() < kCommLen ? name.size() : kCommLen;
  if (memcmp(key.comm, name.data(), kept) != 0) abort();
  for (size_t i = kept; i < kCommLen; ++i) {
    if (key.comm[i] != 0) abort();
  }
  std::string back = "stale";  // a reused string must be replaced, not appended to
  assignTaskName(back, key.comm);
  const std::string cut = name.substr(0, kept);
  if (back != cut.substr(0, cut.find('\0'))) abort();
  return 0;
}
