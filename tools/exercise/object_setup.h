// Drives a pinned zelkCputimeInState as the library's tracking start does, without the library:
// writes the four configuration maps and attaches the six programs. For tests and measurements.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::exercise {

struct Policy {
  std::vector<uint32_t> cpus;
  std::vector<uint32_t> freqs;  // kHz, ascending; number i + 1 is freqs[i]
  uint32_t currentIndex;        // 1-based, as the library writes it
};

// One policy over every possible CPU.
Policy wholeMachinePolicy(const std::vector<uint32_t>& freqs, uint32_t currentIndex);

// Writes the four configuration maps (CPU to policy, frequency to index, a zeroed last update,
// each policy's current index) through their pins, with the library's records. "" on success,
// else what failed.
std::string configure(const std::vector<Policy>& policies);

// Writes one policy's current frequency index, as a frequency change would.
std::string setCurrentIndex(uint32_t policy, uint32_t index);

// The object's programs attached to their tracepoints (tracefs must be mounted) for the life of
// this value.
class Attachment {
 public:
  Attachment() = default;
  ~Attachment();
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;

  // "" when all six are attached, else what failed (those attached stay so).
  std::string attach();
  void detach();

 private:
  std::vector<int> links_;
};

}  // namespace zelk::exercise
