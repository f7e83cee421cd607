#include "kernel/bpf_lock.h"

#include <android-base/errno_restorer.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "syscall/bpf_syscall.h"

namespace android {
namespace bpf {
namespace {

// The map's kernel id, or -1 with errno set.
int64_t mapId(int fd) {
  bpf_map_info info;
  uint32_t infoLen;
  if (com::zelkora::mapGetInfo(fd, &info, &infoLen) != 0) return -1;
  if (infoLen < offsetof(bpf_map_info, id) + sizeof(info.id)) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return info.id;
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
  android::base::ErrnoRestorer keepFcntlErrno;
  close(fd);
  return ret;
}

int mapRetrieveWO(const char* path) {
  return bpfLock(com::zelkora::bpfObjGet(path, BPF_F_WRONLY), F_WRLCK);
}

}  // namespace bpf
}  // namespace android
