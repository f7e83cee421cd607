#include "core/map_shape.h"

#include <android-base/stringprintf.h>
#include <linux/bpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "syscall/bpf_syscall.h"

using android::base::StringPrintf;

namespace com {
namespace zelkora {
namespace {

bool isPerCpuType(uint32_t type) {
  return type == BPF_MAP_TYPE_PERCPU_HASH || type == BPF_MAP_TYPE_PERCPU_ARRAY ||
         type == BPF_MAP_TYPE_LRU_PERCPU_HASH || type == BPF_MAP_TYPE_PERCPU_CGROUP_STORAGE;
}

// A pinned program also opens with BPF_OBJ_GET, and its info would be read as a map's.
bool isMapDescriptor(int fd) {
  char target[64] = {};
  const std::string link = StringPrintf("/proc/self/fd/%d", fd);
  const ssize_t len = readlink(link.c_str(), target, sizeof(target) - 1);
  return len < 0 || strcmp(target, "anon_inode:bpf-map") == 0;  // no /proc: trust the info
}

}  // namespace

std::string describeMapMismatch(int fd, const MapShape& expected) {
  if (!isMapDescriptor(fd)) return "not a map";
  bpf_map_info info;
  uint32_t infoLen;
  if (mapGetInfo(fd, &info, &infoLen) != 0) {
    return StringPrintf("no map information: %s", strerror(errno));
  }
  if (infoLen < offsetof(bpf_map_info, max_entries)) return "no map information";
  std::string mismatch;
  if (info.key_size != expected.keySize) {
    mismatch += StringPrintf("key size %u, expected %u; ", info.key_size, expected.keySize);
  }
  if (info.value_size != expected.valueSize) {
    mismatch += StringPrintf("value size %u, expected %u; ", info.value_size, expected.valueSize);
  }
  if (isPerCpuType(info.type) != expected.perCpu) {
    mismatch += StringPrintf("map type %u is %sper-CPU, expected %sper-CPU; ", info.type,
                             isPerCpuType(info.type) ? "" : "not ", expected.perCpu ? "" : "not ");
  }
  if (!mismatch.empty()) mismatch.resize(mismatch.size() - 2);
  return mismatch;
}

}  // namespace zelkora
}  // namespace com
