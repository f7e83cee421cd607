#include "query/task_key.h"

#include <algorithm>
#include <cstring>

namespace com {
namespace zelkora {

void assignTaskName(std::string& out, const char (&comm)[kCommLen]) {
  const void* nul = memchr(comm, '\0', kCommLen);
  const size_t length = nul ? static_cast<const char*>(nul) - comm : kCommLen;
  out.assign(comm, length);
}

process_key_t mapKeyFromName(const std::string& name, bool flag) {
  process_key_t key;
  memset(&key, 0, sizeof(key));
  memcpy(key.comm, name.data(), std::min(name.size(), kCommLen));
  key.flag = flag ? 1 : 0;
  return key;
}

}  // namespace zelkora
}  // namespace com
