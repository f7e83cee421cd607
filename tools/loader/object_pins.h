// The pins of the kernel object zelkCputimeInState, named as the library finds them.
#pragma once

#include <string>
#include <vector>

#include "core/catalogue.h"

namespace zelk::loader {

using com::zelkora::kBpffsDir;
using com::zelkora::kObjectName;

// Where a map of the object is pinned, by the catalogue's rule:
// /sys/fs/bpf/map_zelkCputimeInState_<map>.
std::string mapPinPath(const std::string& mapName);

struct ObjectBytes {
  const void* data;
  size_t size;
};

// The object built with this tree.
ObjectBytes embeddedObject();

struct ProgramPin {
  std::string path;
  std::string category;  // of the tracepoint, as in sched:sched_switch; "" for a run program
  std::string event;     // of the tracepoint; a run program's name
};

// The pin of the program in section "tracepoint/<category>/<event>":
// /sys/fs/bpf/prog_zelkCputimeInState_tracepoint_<category>_<event>; of one in the bare section
// "raw_tp", which user space runs: /sys/fs/bpf/prog_zelkCputimeInState_raw_tp_<name>. An empty
// path for any other section.
ProgramPin programPin(const std::string& sectionName, const std::string& programName);

struct PinList {
  std::vector<std::string> maps;
  std::vector<ProgramPin> programs;
  std::string error;  // "" when the object could be read
};

// Every pin path of `object`, maps then programs, in the object's order. Reads the ELF only.
PinList objectPins(ObjectBytes object);

}  // namespace zelk::loader
