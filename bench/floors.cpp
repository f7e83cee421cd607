#include "floors.h"

#include <cerrno>

#include "syscall/bpf_syscall.h"

namespace zelk::bench {
namespace {

using com::zelkora::adj_value_t;
using com::zelkora::isTopAdj;
using com::zelkora::mapDeleteElem;
using com::zelkora::mapGetNextKey;
using com::zelkora::mapLookupElem;
using com::zelkora::pid_key_t;
using com::zelkora::process_info_t;
using com::zelkora::process_key_t;
using com::zelkora::task_name_value_t;
using com::zelkora::time_value_t;

}  // namespace

bool walkFloor(int fd, time_in_state_block_t* value, size_t expectedKeys) {
  process_key_t key;
  size_t keys = 0;
  // The kernel reads the key before it writes the next one, so one buffer serves both.
  for (int ret = mapGetNextKey(fd, nullptr, &key); ret == 0; ret = mapGetNextKey(fd, &key, &key)) {
    if (mapLookupElem(fd, &key, value) != 0) return false;
    ++keys;
  }
  return errno == ENOENT && keys == expectedKeys;
}

bool batchWalkFloor(int fd, process_key_t* keys, time_in_state_block_t* values,
                    size_t expectedKeys) {
  process_key_t inBatch;
  process_key_t outBatch;
  size_t found = 0;
  for (const void* in = nullptr;; in = &inBatch) {
    uint32_t count = kBatchFloorEntries;
    const int ret = com::zelkora::mapLookupBatch(fd, in, &outBatch, keys, values, &count);
    found += count;
    if (ret != 0) return errno == ENOENT && found == expectedKeys;
    inBatch = outBatch;
  }
}

bool lookupFloor(int fd, const void* key, time_in_state_block_t* value) {
  return mapLookupElem(fd, key, value) == 0;
}

bool clearFloor(int fd, size_t expectedKeys) {
  process_key_t key;
  size_t deleted = 0;
  while (mapGetNextKey(fd, nullptr, &key) == 0 && mapDeleteElem(fd, &key) == 0) ++deleted;
  return errno == ENOENT && deleted == expectedKeys;
}

bool topBgFloor(const TopBgFds& fds, bool isTop, size_t expectedNames) {
  pid_key_t pid;
  const uint32_t zeroKey = 0;
  time_value_t clearTime;
  if (mapGetNextKey(fds.pidAdj, nullptr, &pid) != 0) return false;
  if (mapLookupElem(fds.clearTime, &zeroKey, &clearTime) != 0) return false;
  do {
    task_name_value_t name;
    if (mapLookupElem(fds.pidComm, &pid, &name) != 0) return false;
    adj_value_t adj;
    if (mapLookupElem(fds.pidAdj, &pid, &adj) == 0 && isTopAdj(adj) == isTop) {
      time_value_t lastUpdate;
      mapLookupElem(fds.pidAdjUpdate, &pid, &lastUpdate);
    }
  } while (mapGetNextKey(fds.pidAdj, &pid, &pid) == 0);

  process_info_t key;
  size_t names = 0;
  for (int ret = mapGetNextKey(fds.timeMap, nullptr, &key); ret == 0;
       ret = mapGetNextKey(fds.timeMap, &key, &key)) {
    time_value_t total;
    if (mapLookupElem(fds.timeMap, &key, &total) != 0) return false;
    ++names;
  }
  return errno == ENOENT && names == expectedNames;
}

}  // namespace zelk::bench
