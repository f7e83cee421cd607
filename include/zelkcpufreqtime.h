// libzelkcpufreqtime: CPU time per cpufreq frequency, for the whole system, per process and per
// kernel thread, and foreground/background time per task name.
//
// The counting is done in the kernel by the BPF object zelkCputimeInState, whose programs and
// maps must be pinned under /sys/fs/bpf before any call. The library discovers the policies in
// /sys/devices/system/cpu/cpufreq on the first call (any call; there is no init function) and
// retries that on every call until it succeeds once.
//
// Every function may be called from any thread. Times are in the kernel's unit (nanoseconds).
//
// Error contract. A bool is false when the operation failed; an optional is empty when the query
// failed (an engaged but empty table means "no entries"). Nothing is thrown, except that an
// allocation failure passes on to the caller, and so does a background thread that cannot be
// created (std::system_error, from startTrackingCpuFreqTime).
//
// Most failures are silent: the result is all there is. Messages go to the platform log, tag
// "libzelkcpufreqtime", only for:
//   - a pinned map that the initialisation cannot open, or whose key or value size is not the
//     object's (error, on every attempt);
//   - startTrackingCpuFreqTime: a program that cannot be retrieved or attached (error), then its
//     outcome (info, "zelkCputimeInState tracking success." or "failed.");
//   - the background thread that the tracking start runs: the seeding of the pid maps from /proc
//     and the CPU pressure monitor (its trigger at info level, its errors);
//   - a clock that cannot be read;
//   - clearProcessTimes, clearKthreadTimes, clearTopAndBgTimes: a kernel error while clearing
//     (error), or a clear that took more than one second (warning).
// Silent, among others: a missing or empty cpufreq tree, or a policy without frequencies (every
// call fails until discovery succeeds); isTrackingCpuFreqTimeSupported with a program missing; a
// tracking start refused while configuring the object (a configuration map busy or not opened,
// a current frequency that is not in the table); every failed query; a failed single-entry
// clear, and clearTotalCpuTime.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#define ZELK_API __attribute__((visibility("default")))

namespace com {
namespace zelkora {

// A task as the result tables name it: its name (up to 16 bytes) and a flag. In the process
// table the flag is 1 while the process was counted in the foreground, else 0; in the
// kernel-thread table it is always 1; in the top/background tables it is always 0.
struct process_key_char_t {
  std::string comm;
  uint64_t flag;
};

struct process_key_char_hash {
  size_t operator()(const process_key_char_t& key) const {
    return std::hash<std::string>{}(key.comm) ^ (key.flag << 1);
  }
};

struct process_key_char_equal {
  bool operator()(const process_key_char_t& a, const process_key_char_t& b) const {
    return a.flag == b.flag && a.comm == b.comm;
  }
};

// One list per policy, in ascending policy number; one entry per frequency of that policy, in
// the ascending order of getCpuFreqs().
using TimeInStateVector = std::vector<std::vector<uint64_t>>;
using TimeInStateTable = std::unordered_map<process_key_char_t, TimeInStateVector,
                                            process_key_char_hash, process_key_char_equal>;
using TimeTable =
    std::unordered_map<process_key_char_t, uint64_t, process_key_char_hash, process_key_char_equal>;

// True for an optional '-' followed by one or more ASCII digits.
ZELK_API bool isNumber(const std::string& text);

// The frequency table in kHz: per policy, available and boost frequencies, sorted, duplicates kept.
ZELK_API std::optional<std::vector<std::vector<uint64_t>>> getCpuFreqs();

// True when every tracepoint program is pinned (or tracking has already started).
ZELK_API bool isTrackingCpuFreqTimeSupported();

// Configures the kernel object, attaches its programs and starts the background thread. True
// once tracking runs; later calls return true at once.
ZELK_API bool startTrackingCpuFreqTime();

// Whole-system time at each frequency.
ZELK_API std::optional<std::vector<std::vector<uint64_t>>> getTotalCpuFreqTimes();

// Time at each frequency of every process (keyed by name and foreground flag) and of every
// kernel thread. Where the kernel has batch lookups for hash maps (Linux 5.6 and later) the map
// is read a few buckets at a time, each bucket whole: an entry deleted meanwhile (a clear from
// another process, a task's removal) is just absent, and the query fails only on another error
// of the kernel's. Elsewhere it is read key by key, and a key deleted between the step that
// found it and its lookup fails the query.
ZELK_API std::optional<TimeInStateTable> getProcessCpuFreqTimes();
ZELK_API std::optional<TimeInStateTable> getKthreadCpuFreqTimes();

// Time at each frequency of one task; names are cut to 16 bytes. Zeros when the task has no entry
// but others do; empty when the map holds no entry at all.
ZELK_API std::optional<std::vector<std::vector<uint64_t>>> getCpuFreqTimesFromProcess(
    std::string name, bool flag);
ZELK_API std::optional<std::vector<std::vector<uint64_t>>> getCpuFreqTimesFromKthread(
    std::string name);

// Foreground ("top") and background time per task name, in nanoseconds: stored totals plus the
// running period of live tasks in that class since their last change or the last reset. The maps
// are read as the tables above are: in batches where the kernel has them, where a name deleted
// meanwhile is absent and so is a live task that ended meanwhile; else key by key, where a name
// or a live task's name gone between its step and its lookup fails the query.
ZELK_API std::optional<TimeTable> getProcessTopTimes();
ZELK_API std::optional<TimeTable> getProcessBgTimes();

// Resets. Single-entry clears succeed when the entry does not exist.
ZELK_API bool clearProcessTimes();
ZELK_API bool clearKthreadTimes();
ZELK_API bool clearTimesFromProcess(std::string name, bool flag);
ZELK_API bool clearTimesFromKthread(std::string name);
ZELK_API bool clearTotalCpuTime();
ZELK_API bool clearTopAndBgTimes();

}  // namespace zelkora
}  // namespace com
