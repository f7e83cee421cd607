// The demo's private mount namespace: what it mounts is seen by no other process and goes away
// with it, so that the demo leaves nothing behind on the machine.
#pragma once

#include <string>

#include "machine/synthetic_policy.h"

namespace zelk::cli {

// Enters a new mount namespace whose mounts do not propagate back, with a fresh bpffs on
// /sys/fs/bpf and tracefs on /sys/kernel/tracing unless a tracing directory is already there.
// "" on success, else what failed.
std::string enterPrivateMounts();

// Hides the machine's cpufreq directory under a tmpfs holding one synthetic policy over `cpus`.
std::string mountSyntheticCpufreq(uint64_t khz, const std::vector<uint32_t>& cpus);

}  // namespace zelk::cli
