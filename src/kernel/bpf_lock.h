// Write-locked access to configuration maps, so that two processes never configure the kernel
// object at the same time.
#pragma once

namespace android {
namespace bpf {

// Takes an open-file-description lock of `type` (F_WRLCK) on one byte at the offset of the
// map's kernel id, without waiting. Returns `fd` when locked (or when the kernel cannot report
// map ids); otherwise closes `fd` and returns -1 with errno from fcntl. A negative `fd` is
// returned unchanged.
int bpfLock(int fd, short type);

// Opens a pinned map write-only and locks it as above.
int mapRetrieveWO(const char* path);

}  // namespace bpf
}  // namespace android
