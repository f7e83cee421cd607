// The catalogue of the kernel object (bpf/catalogue.h) as C++ tables: one record per map and per
// program, in the catalogue's order, for the library, the loader, the tool and the test bed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "../../bpf/catalogue.h"

namespace com {
namespace zelkora {

inline constexpr const char kObjectName[] = ZELK_OBJECT_NAME;
inline constexpr const char kBpffsDir[] = ZELK_BPFFS_DIR;
// The pin rule as formats: of a map, with the object's name and the map's; of a program, with the
// object's name, the tracepoint's category and its event.
inline constexpr const char kMapPinFormat[] = ZELK_MAP_PIN_RULE("%s", "%s");
inline constexpr const char kProgramPinFormat[] = ZELK_PROGRAM_PIN_RULE("%s", "%s", "%s");

#define ZELK_MAP_ID(id, ...) id,
enum class MapId : uint32_t { ZELK_MAPS(ZELK_MAP_ID) };
#undef ZELK_MAP_ID

struct MapInfo {
  MapId id;
  const char* name;
  const char* pinPath;
  bpf_map_type type;
  bool perCpu;  // a lookup gives one value per possible CPU
  uint32_t keySize;
  uint32_t valueSize;
  zelk_size_option size;
  uint32_t compiledEntries;
  zelk_overflow_kind overflow;
  bool opened;  // by the library at initialisation
};

#define ZELK_MAP_INFO(id, name, type, key, value, size, entries, overflow, opened)               \
  MapInfo{MapId::id,    #name,         ZELK_MAP_PIN(name), type,    ZELK_MAP_TYPE_PER_CPU(type), \
          sizeof(key),  sizeof(value), ZELK_SIZE_##size,   entries, ZELK_OVERFLOW_##overflow,    \
          (opened) != 0},
inline constexpr MapInfo kMaps[] = {ZELK_MAPS(ZELK_MAP_INFO)};
#undef ZELK_MAP_INFO

inline constexpr size_t kMapCount = std::size(kMaps);

constexpr const MapInfo& mapInfo(MapId id) { return kMaps[static_cast<size_t>(id)]; }

// The map named `name`, or nullptr.
constexpr const MapInfo* findMap(std::string_view name) {
  for (const MapInfo& map : kMaps) {
    if (name == map.name) return &map;
  }
  return nullptr;
}

// The maps that the library opens at initialisation: the first kOpenedMapCount of kMaps.
constexpr size_t countOpenedMaps() {
  size_t count = 0;
  while (count < kMapCount && kMaps[count].opened) ++count;
  return count;
}
inline constexpr size_t kOpenedMapCount = countOpenedMaps();

constexpr bool catalogueIsOrdered() {
  for (size_t i = 0; i < kMapCount; ++i) {
    if (kMaps[i].id != static_cast<MapId>(i) || kMaps[i].opened != (i < kOpenedMapCount)) {
      return false;
    }
  }
  return true;
}
static_assert(catalogueIsOrdered(), "ids in catalogue order, the library's maps first");
static_assert(sizeof(zelk_time_in_state) == sizeof(zelk_u64) * ZELK_FREQ_SLOTS, "8-byte slots");

struct ProgramInfo {
  const char* category;  // of the tracepoint, as in sched:sched_switch
  const char* event;
  const char* pinPath;
};

#define ZELK_PROGRAM_INFO(category, event) \
  ProgramInfo{#category, #event, ZELK_PROGRAM_PIN(category, event)},
inline constexpr ProgramInfo kPrograms[] = {ZELK_PROGRAMS(ZELK_PROGRAM_INFO)};
#undef ZELK_PROGRAM_INFO

// The programs that are run, never attached, and the rule of their pins, with the object's name
// and the program's.
inline constexpr const char kRunProgramSection[] = ZELK_RUN_PROGRAM_SECTION;
inline constexpr const char kRunProgramPinFormat[] = ZELK_RUN_PROGRAM_PIN_RULE("%s", "%s");

struct RunProgramInfo {
  const char* name;
  const char* pinPath;
};

#define ZELK_RUN_PROGRAM_INFO(name) RunProgramInfo{#name, ZELK_RUN_PROGRAM_PIN(name)},
inline constexpr RunProgramInfo kRunPrograms[] = {ZELK_RUN_PROGRAMS(ZELK_RUN_PROGRAM_INFO)};
#undef ZELK_RUN_PROGRAM_INFO

}  // namespace zelkora
}  // namespace com
