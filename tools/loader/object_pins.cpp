#include "object_pins.h"

#include <bpf/libbpf.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "zelkCputimeInState.skel.h"

namespace zelk::loader {
namespace {

// The catalogue's pin rule is a format: printf into a string. (libbase's StringPrintf would make
// the installed loader need libbase, which lies outside the library path.)
template <typename... Args>
std::string formatPin(const char* format, Args... args) {
  const int length = snprintf(nullptr, 0, format, args...);
  if (length <= 0) return "";
  std::string text(static_cast<size_t>(length), '\0');
  snprintf(text.data(), text.size() + 1, format, args...);
  return text;
}

}  // namespace

std::string mapPinPath(const std::string& mapName) {
  return formatPin(com::zelkora::kMapPinFormat, kObjectName, mapName.c_str());
}

ProgramPin programPin(const std::string& sectionName, const std::string& programName) {
  if (sectionName == com::zelkora::kRunProgramSection) {
    if (programName.empty()) return {};
    return {formatPin(com::zelkora::kRunProgramPinFormat, kObjectName, programName.c_str()), "",
            programName};
  }
  static const std::string kPrefix = "tracepoint/";
  if (sectionName.compare(0, kPrefix.size(), kPrefix) != 0) return {};
  const std::string tracepoint = sectionName.substr(kPrefix.size());
  const size_t slash = tracepoint.find('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 == tracepoint.size() ||
      tracepoint.find('/', slash + 1) != std::string::npos) {
    return {};
  }
  ProgramPin pin;
  pin.category = tracepoint.substr(0, slash);
  pin.event = tracepoint.substr(slash + 1);
  pin.path = formatPin(com::zelkora::kProgramPinFormat, kObjectName, pin.category.c_str(),
                       pin.event.c_str());
  return pin;
}

ObjectBytes embeddedObject() {
  ObjectBytes bytes{};
  bytes.data = zelkCputimeInState__elf_bytes(&bytes.size);
  return bytes;
}

PinList objectPins(ObjectBytes object) {
  PinList pins;
  LIBBPF_OPTS(bpf_object_open_opts, options, .object_name = kObjectName);
  bpf_object* parsed = bpf_object__open_mem(object.data, object.size, &options);
  if (parsed == nullptr) {
    pins.error = std::string("cannot read the BPF object: ") + strerror(errno);
    return pins;
  }
  bpf_map* map;
  bpf_object__for_each_map(map, parsed) { pins.maps.push_back(mapPinPath(bpf_map__name(map))); }
  bpf_program* program;
  bpf_object__for_each_program(program, parsed) {
    ProgramPin pin = programPin(bpf_program__section_name(program), bpf_program__name(program));
    if (pin.path.empty()) {
      pins.error = std::string("program ") + bpf_program__name(program) +
                   " is not in a tracepoint/<category>/<event> or a raw_tp section";
      break;
    }
    pins.programs.push_back(std::move(pin));
  }
  bpf_object__close(parsed);
  return pins;
}

}  // namespace zelk::loader
