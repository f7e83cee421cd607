#include "bench_world.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "namespace.h"
#include "syscall/bpf_syscall.h"

namespace zelk::bench {
namespace {

using com::zelkora::process_info_t;
using com::zelkora::process_key_t;
using testbed::MapId;

testbed::Maps gMaps;
uint32_t gPolicies = 0;
bool gFailed = false;

void put(MapId id, const void* key, const void* value) {
  if (com::zelkora::mapUpdateElem(mapFd(id), key, value, BPF_ANY) != 0) {
    fprintf(stderr, "bench: update of %s failed: %s\n", testbed::catalogue(id).name,
            strerror(errno));
    markFailed();
  }
}

}  // namespace

std::string setUpWorld(const BenchOptions& options) {
  std::string error = testbed::enterPrivateNamespace();
  if (!error.empty()) return error;
  error = gMaps.create();
  if (!error.empty()) return error;
  std::vector<uint64_t> freqs;
  for (uint32_t i = 0; i < options.freqCount; ++i) freqs.push_back(300000 + 96000 * i);
  for (uint32_t cpu = 0; cpu < testbed::possibleCpus(); ++cpu) {
    testbed::addPolicy("policy" + std::to_string(cpu), freqs, {cpu});
  }
  gPolicies = testbed::possibleCpus();
  return "";
}

int mapFd(MapId id) { return gMaps.fd(id); }

uint32_t policyCount() { return gPolicies; }

std::string taskName(size_t index) {
  char name[32];
  if (index % 2 == 0) {
    snprintf(name, sizeof(name), "com.example.%04zu", index / 2);  // 16 characters
  } else {
    snprintf(name, sizeof(name), "proc-%zu", index);
  }
  return name;
}

void putTaskKeys(MapId id, size_t n) {
  testbed::PerCpuValue value = testbed::perCpuValue();
  for (size_t i = 0; i < n; ++i) {
    for (size_t b = 0; b < value.size(); ++b) {
      for (size_t j = 0; j < com::zelkora::kFreqSlots; ++j) value[b].slot[j] = i + b + j + 1;
    }
    const uint64_t flag = id == MapId::ProcessTime ? i % 2 : 1;
    const process_key_t key = testbed::processKey(taskName(i), flag);
    put(id, &key, value.data());
  }
}

size_t drainMap(MapId id) {
  const uint32_t keySize = testbed::catalogue(id).keySize;
  std::vector<unsigned char> key(keySize);
  size_t deleted = 0;
  while (com::zelkora::mapGetNextKey(mapFd(id), nullptr, key.data()) == 0 &&
         com::zelkora::mapDeleteElem(mapFd(id), key.data()) == 0) {
    ++deleted;
  }
  return deleted;
}

void putTopBgWorld(size_t pids, size_t names) {
  const uint32_t zero = 0;
  const uint64_t clearTime = 1000;
  put(MapId::ClearTime, &zero, &clearTime);
  for (size_t i = 0; i < pids; ++i) {
    const int32_t pid = static_cast<int32_t>(1000 + i);
    const process_info_t name = testbed::processInfo(taskName(i % names));
    // Foreground (0, or -800 for the top app) and background (900, or -1000) in turn.
    static const int16_t kAdj[] = {0, 900, -800, -1000};
    const int16_t adj = kAdj[i % 4];
    const uint64_t lastUpdate = clearTime + i;
    put(MapId::PidComm, &pid, &name);
    put(MapId::PidAdj, &pid, &adj);
    put(MapId::PidAdjUpdate, &pid, &lastUpdate);
  }
  for (size_t i = 0; i < names; ++i) {
    const process_info_t name = testbed::processInfo(taskName(i));
    const uint64_t total = 1000000 * (i + 1);
    put(MapId::TopTime, &name, &total);
    put(MapId::BgTime, &name, &total);
  }
}

void markFailed() { gFailed = true; }
bool anyFailed() { return gFailed; }

}  // namespace zelk::bench
