// The process and kernel-thread tables: one walk over a per-CPU map keyed by process_key_t, in
// batches where the kernel has them, else key by key.
#include <android-base/unique_fd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <vector>

#include "core/map_records.h"
#include "core/state.h"
#include "query/batch_walk.h"
#include "query/fold.h"
#include "query/task_key.h"
#include "syscall/bpf_syscall.h"
#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {
namespace {

enum class TableFlag { FromKey, AlwaysOne };

// Keys are read in batches: the bpf(2) calls of a batch run back to back, each value folded into
// a row, and then the batch goes into the table. The table's hashing, probing and allocation then
// run on warm caches and TLB instead of right after each kernel entry, which flushes them on
// machines without tagged TLBs. A batch's keys and rows take about 64 KiB, well inside L2.
constexpr size_t kBatchBytes = size_t{64} * 1024;

class TaskTableBuilder {
 public:
  TaskTableBuilder(TimeInStateTable& table, TableFlag flagRule)
      : table_(table),
        flagRule_(flagRule),
        rowLength_(gFoldLayout.rowBegin.back()),
        batchKeys_(std::max<size_t>(
            1, kBatchBytes / (sizeof(process_key_t) + rowLength_ * sizeof(uint64_t)))),
        // Left uninitialised: a key is copied and a row written before either is read.
        keys_(new process_key_t[batchKeys_]),
        rows_(new uint64_t[batchKeys_ * rowLength_]) {}

  // Keeps the key and folds its value into the key's row; the batch goes into the table when full.
  void stage(const process_key_t& key, const time_in_state_block_t* value) {
    keys_[staged_] = key;
    foldPerCpuValueIntoRow(gFoldLayout, value, &rows_[staged_ * rowLength_]);
    if (++staged_ == batchKeys_) flush();
  }

  void flush() {
    for (size_t i = 0; i < staged_; ++i) {
      const uint64_t* row = &rows_[i * rowLength_];
      assignTaskName(probe_.comm, keys_[i].comm);
      probe_.flag = flagRule_ == TableFlag::AlwaysOne ? 1 : keys_[i].flag;
      // The probe is copied, not moved, into a new entry: its string keeps its buffer, so keys
      // that meet an existing entry allocate nothing.
      const auto [entry, inserted] = table_.try_emplace(probe_);
      if (inserted) {
        entry->second = timeInStateFromRow(gFoldLayout, row);
      } else {
        addRow(gFoldLayout, row, entry->second);
      }
    }
    staged_ = 0;
  }

 private:
  TimeInStateTable& table_;
  const TableFlag flagRule_;
  const size_t rowLength_;
  const size_t batchKeys_;
  std::unique_ptr<process_key_t[]> keys_;
  std::unique_ptr<uint64_t[]> rows_;
  size_t staged_ = 0;
  process_key_char_t probe_{std::string(), 0};
};

// The size of the table that the previous walk of a map returned. Callers poll, and maps change
// slowly, so reserving that much spares the table its rehashes as it grows; the size affects
// nothing but speed.
std::atomic<size_t> gProcessTableHint{0};
std::atomic<size_t> gKthreadTableHint{0};

// The caller holds the map's lock shared.
std::optional<TimeInStateTable> readByElements(int fd, TableFlag flagRule,
                                               std::atomic<size_t>& sizeHint) {
  TimeInStateTable table;
  process_key_t key;
  if (mapGetNextKey(fd, nullptr, &key) != 0) {
    if (errno == ENOENT) return table;
    return std::nullopt;
  }

  table.reserve(sizeHint.load(std::memory_order_relaxed));
  std::vector<time_in_state_block_t> value(gCpuBlockCount);
  TaskTableBuilder builder(table, flagRule);
  for (;;) {
    // A key removed since the step that returned it fails the whole query, as any lookup error.
    if (mapLookupElem(fd, &key, value.data()) != 0) return std::nullopt;
    builder.stage(key, value.data());

    const process_key_t previous = key;
    if (mapGetNextKey(fd, &previous, &key) != 0) {
      if (errno != ENOENT) return std::nullopt;
      builder.flush();
      sizeHint.store(table.size(), std::memory_order_relaxed);
      return table;
    }
  }
}

// Entries per batch call: as many as fit in about 1 MiB of values, between 64 and 1,024. Fewer
// calls cost less than the kernel entry of each, and the buffers stay out of the way of the
// table's memory.
constexpr size_t kBatchValueBytes = size_t{1} << 20;
constexpr uint32_t kMinBatchEntries = 64;
constexpr uint32_t kMaxBatchEntries = 1024;

// Reads whole buckets at a time. The caller holds the map's lock shared.
BatchWalk readByBatches(int fd, TableFlag flagRule, std::atomic<size_t>& sizeHint,
                        TimeInStateTable& table) {
  const size_t entryBlocks = gCpuBlockCount;
  const auto capacity = static_cast<uint32_t>(
      std::clamp<size_t>(kBatchValueBytes / (entryBlocks * sizeof(time_in_state_block_t)),
                         kMinBatchEntries, kMaxBatchEntries));
  table.reserve(sizeHint.load(std::memory_order_relaxed));
  TaskTableBuilder builder(table, flagRule);
  const BatchWalk walk = walkInBatches<process_key_t, time_in_state_block_t>(
      fd, capacity, entryBlocks,
      [&](const process_key_t* keys, const time_in_state_block_t* values, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) builder.stage(keys[i], &values[i * entryBlocks]);
      });
  if (walk == BatchWalk::Done) {
    builder.flush();
    sizeHint.store(table.size(), std::memory_order_relaxed);
  }
  return walk;
}

// The caller holds the map's lock shared.
std::optional<TimeInStateTable> readTaskTable(int fd, TableFlag flagRule,
                                              std::atomic<size_t>& sizeHint) {
  if (perCpuBatchesUsable()) {
    TimeInStateTable table;
    switch (readByBatches(fd, flagRule, sizeHint, table)) {
      case BatchWalk::Done:
        return table;
      case BatchWalk::Failed:
        return std::nullopt;
      case BatchWalk::Unsupported:
        gPerElementWalks.store(true, std::memory_order_relaxed);
        break;
    }
  }
  return readByElements(fd, flagRule, sizeHint);
}

}  // namespace

std::optional<TimeInStateTable> getProcessCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  ReaderLock lock(gProcessTimeLock);
  return readTaskTable(gProcessTimeFd.get(), TableFlag::FromKey, gProcessTableHint);
}

std::optional<TimeInStateTable> getKthreadCpuFreqTimes() {
  if (!ensureGlobals()) return std::nullopt;
  ReaderLock lock(gKthreadTimeLock);
  return readTaskTable(gKthreadTimeFd.get(), TableFlag::AlwaysOne, gKthreadTableHint);
}

}  // namespace zelkora
}  // namespace com
