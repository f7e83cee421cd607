// Loads the kernel object zelkCputimeInState and pins its maps and programs where the library
// finds them, without attaching anything; unloads by removing exactly those pins.
#pragma once

#include <cstdint>
#include <string>

#include "map_sizes.h"
#include "object_pins.h"

namespace zelk::loader {

enum class Status {
  kLoaded,         // loaded and pinned
  kAlreadyLoaded,  // every pin existed; nothing changed
  kUnloaded,       // its pins were removed
  kNotLoaded,      // unload found none of its pins
  kFailed,
};

struct Outcome {
  Status status;
  std::string message;  // one line saying what happened or what failed (a verifier log follows)
  uint64_t kernelBytes = 0;  // after a load: the memlock of its maps and programs
  bool ok() const { return status != Status::kFailed; }
};

struct LoadOptions {
  bool replace = false;  // replace existing pins instead of leaving them
  MapSizes sizes;        // a 0 takes the machine's default
  ObjectBytes object = embeddedObject();
};

// Mounts bpffs on /sys/fs/bpf if needed, loads the object, writes the load time (CLOCK_MONOTONIC
// nanoseconds) into the clear-time map's key 0 and pins every map and program. On failure nothing
// of this load stays pinned. The message of a load tells the sizes and the kernel memory taken.
Outcome load(const LoadOptions& options = {});

// Removes the object's pins under /sys/fs/bpf, and nothing else.
Outcome unload(ObjectBytes object = embeddedObject());

}  // namespace zelk::loader
