#include "syscall/bpf_syscall.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace com {
namespace zelkora {
namespace {

// The library always hands the kernel a zeroed 144-byte attribute block.
constexpr size_t kAttrSize = 144;
union Attr {
  bpf_attr attr;
  unsigned char bytes[kAttrSize];
};
static_assert(sizeof(Attr) == kAttrSize, "union bpf_attr grew past the block the library passes");
static_assert(offsetof(bpf_attr, map_fd) == 0 && offsetof(bpf_attr, key) == 8 &&
              offsetof(bpf_attr, value) == 16 && offsetof(bpf_attr, next_key) == 16 &&
              offsetof(bpf_attr, flags) == 24);
static_assert(offsetof(bpf_attr, pathname) == 0 && offsetof(bpf_attr, bpf_fd) == 8 &&
              offsetof(bpf_attr, file_flags) == 12);
static_assert(offsetof(bpf_attr, info.bpf_fd) == 0 && offsetof(bpf_attr, info.info_len) == 4 &&
              offsetof(bpf_attr, info.info) == 8);

uint64_t ptrToU64(const void* ptr) {
  return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ptr));
}

int bpfCall(int cmd, Attr& a) {
  return static_cast<int>(syscall(SYS_bpf, cmd, &a.attr, kAttrSize));
}

int mapElemCall(int cmd, int fd, const void* key, const void* valueOrNext, uint64_t flags) {
  Attr a;
  memset(&a, 0, sizeof(a));
  a.attr.map_fd = static_cast<uint32_t>(fd);
  a.attr.key = ptrToU64(key);
  a.attr.value = ptrToU64(valueOrNext);
  a.attr.flags = flags;
  return bpfCall(cmd, a);
}

}  // namespace

int mapLookupElem(int fd, const void* key, void* value) {
  return mapElemCall(BPF_MAP_LOOKUP_ELEM, fd, key, value, 0);
}

int mapUpdateElem(int fd, const void* key, const void* value, uint64_t flags) {
  return mapElemCall(BPF_MAP_UPDATE_ELEM, fd, key, value, flags);
}

int mapDeleteElem(int fd, const void* key) {
  return mapElemCall(BPF_MAP_DELETE_ELEM, fd, key, nullptr, 0);
}

int mapGetNextKey(int fd, const void* key, void* nextKey) {
  return mapElemCall(BPF_MAP_GET_NEXT_KEY, fd, key, nextKey, 0);
}

static_assert(offsetof(bpf_attr, batch.in_batch) == 0 && offsetof(bpf_attr, batch.out_batch) == 8 &&
              offsetof(bpf_attr, batch.keys) == 16 && offsetof(bpf_attr, batch.values) == 24 &&
              offsetof(bpf_attr, batch.count) == 32 && offsetof(bpf_attr, batch.map_fd) == 36);

int mapLookupBatch(int fd, const void* inBatch, void* outBatch, void* keys, void* values,
                   uint32_t* count) {
  Attr a;
  memset(&a, 0, sizeof(a));
  a.attr.batch.in_batch = ptrToU64(inBatch);
  a.attr.batch.out_batch = ptrToU64(outBatch);
  a.attr.batch.keys = ptrToU64(keys);
  a.attr.batch.values = ptrToU64(values);
  a.attr.batch.count = *count;
  a.attr.batch.map_fd = static_cast<uint32_t>(fd);
  const int ret = bpfCall(BPF_MAP_LOOKUP_BATCH, a);
  // The kernel writes the count back on success and at the end of the map, not on every error.
  *count = ret == 0 || errno == ENOENT ? a.attr.batch.count : 0;
  return ret;
}

int bpfObjGet(const char* path, uint32_t fileFlags) {
  Attr a;
  memset(&a, 0, sizeof(a));
  a.attr.pathname = ptrToU64(path);
  a.attr.file_flags = fileFlags;
  return bpfCall(BPF_OBJ_GET, a);
}

static_assert(sizeof(bpf_map_info) >= kMapInfoLen && offsetof(bpf_map_info, id) == 4,
              "the map information record is 88 bytes, the id after the 32-bit type");

int mapGetInfo(int fd, bpf_map_info* info, uint32_t* infoLen) {
  memset(info, 0, sizeof(*info));
  *infoLen = kMapInfoLen;
  Attr a;
  memset(&a, 0, sizeof(a));
  a.attr.info.bpf_fd = static_cast<uint32_t>(fd);
  a.attr.info.info_len = *infoLen;
  a.attr.info.info = ptrToU64(info);
  const int ret = bpfCall(BPF_OBJ_GET_INFO_BY_FD, a);
  if (ret == 0) *infoLen = a.attr.info.info_len;
  return ret;
}

static_assert(offsetof(bpf_attr, test.prog_fd) == 0 && offsetof(bpf_attr, test.flags) == 64 &&
              offsetof(bpf_attr, test.cpu) == 68);

int progTestRunOnCpu(int fd, uint32_t cpu) {
  Attr a;
  memset(&a, 0, sizeof(a));
  a.attr.test.prog_fd = static_cast<uint32_t>(fd);
  a.attr.test.flags = BPF_F_TEST_RUN_ON_CPU;
  a.attr.test.cpu = cpu;
  return bpfCall(BPF_PROG_TEST_RUN, a);
}

}  // namespace zelkora
}  // namespace com
