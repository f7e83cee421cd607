#include "kernel/bpf_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kernel/bpf_syscall.h"

namespace android {
namespace bpf {
namespace {

constexpr uint32_t kMapInfoLen = 88;
constexpr size_t kMapIdOffset = 4;  // after the 32-bit type

// The map's kernel id, or -1 with errno set.
int64_t mapId(int fd) {
  unsigned char info[kMapInfoLen];
  memset(info, 0, sizeof(info));
  uint32_t infoLen = sizeof(info);
  if (com::zelkora::bpfObjGetInfoByFd(fd, info, &infoLen) != 0) return -1;
  if (infoLen < kMapIdOffset + sizeof(uint32_t)) {
    errno = EOPNOTSUPP;
    return -1;
  }
  uint32_t id;
  memcpy(&id, info + kMapIdOffset, sizeof(id));
  return id;
}

}  // namespace

int bpfLock(int fd, short type) {
  if (fd < 0) return fd;

  const int64_t id = mapId(fd);
  if (id == -1 && errno == EINVAL) return fd;  // no map ids on this kernel: nothing to lock by
  if (id <= 0) abort();  // a map descriptor we just retrieved always has an id

  struct flock64 lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = id;
  lock.l_len = 1;
  const int ret = fcntl(fd, F_OFD_SETLK, &lock);
  if (ret == 0) return fd;
  const int savedErrno = errno;
  close(fd);
  errno = savedErrno;
  return ret;
}

int mapRetrieveWO(const char* path) {
  return bpfLock(com::zelkora::bpfObjGet(path, BPF_F_WRONLY), F_WRLCK);
}

}  // namespace bpf
}  // namespace android
