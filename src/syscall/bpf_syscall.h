// One wrapper per bpf(2) command. Each returns what the system call returns: 0 or a descriptor
// on success, -1 with errno set by the kernel on failure.
#pragma once

#include <linux/bpf.h>

#include <cstdint>

namespace com {
namespace zelkora {

// Copies the value of `key` into `value`; per-CPU maps need one value slot per possible CPU.
int mapLookupElem(int fd, const void* key, void* value);
// `flags`: BPF_ANY, BPF_NOEXIST or BPF_EXIST.
int mapUpdateElem(int fd, const void* key, const void* value, uint64_t flags);
int mapDeleteElem(int fd, const void* key);
// With a null `key`, the map's first key; ENOENT when there is no further key.
int mapGetNextKey(int fd, const void* key, void* nextKey);
// BPF_MAP_LOOKUP_BATCH (hash maps: Linux 5.6 and later): copies up to `*count` entries, whole
// buckets only, from the position in `inBatch` (null: the start) into `keys` and `values`, and
// the next position into `outBatch`. Both positions need room for a key. Sets `*count` to the
// entries copied, which ENOENT (the end of the map) may come with; a per-CPU value takes
// round_up(value size, 8) bytes per possible CPU.
int mapLookupBatch(int fd, const void* inBatch, void* outBatch, void* keys, void* values,
                   uint32_t* count);
// Opens a pinned object; `fileFlags` 0, BPF_F_RDONLY or BPF_F_WRONLY.
int bpfObjGet(const char* path, uint32_t fileFlags);
// The map information record as the library asks for it: 88 bytes (bpf_map_info up to
// map_extra), zero-filled first; `*infoLen` is set to what the kernel wrote.
inline constexpr uint32_t kMapInfoLen = 88;
int mapGetInfo(int fd, bpf_map_info* info, uint32_t* infoLen);
// Runs a program without input on `cpu` (BPF_F_TEST_RUN_ON_CPU, Linux 5.10 and later), through an
// interrupt when it is not the caller's; ENXIO for a CPU that is not online.
int progTestRunOnCpu(int fd, uint32_t cpu);

}  // namespace zelkora
}  // namespace com
