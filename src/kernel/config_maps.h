// The four configuration maps through which the kernel object learns the machine's layout. Each
// writer takes a write-only descriptor and the state discovered by initGlobals(), writes with
// BPF_ANY, and stops at the first failed update, returning false. Entries written
// before a failure stay; a later start writes them again.
#pragma once

namespace com {
namespace zelkora {

// CPU to policy: every CPU of every policy to the policy's ordinal.
bool writeCpuPolicies(int fd);
// Frequency to index: {policy ordinal, kHz} to the frequency's 1-based index in its policy.
bool writeFreqIndices(int fd);
// Last update: key 0 to one zero per CPU block.
bool writeZeroLastUpdate(int fd);
// Current index: each policy to the index of its current frequency. False also when a
// policy's scaling_cur_freq cannot be read, is not one number, or is not in its table.
bool writeCurrentFreqIndices(int fd);

}  // namespace zelkora
}  // namespace com
