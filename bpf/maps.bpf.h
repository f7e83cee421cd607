/* The maps of zelkCputimeInState, defined from the catalogue (catalogue.h), which says what each
 * holds, its size and why it is of its type. A full counting map sends new names' time to its
 * overflow entry (overflow.bpf.h). */
#pragma once

#include "catalogue.h"

#define ZELK_DEFINE_MAP(id, name, map_type, key_type, value_type, size, entries, overflow, opened) \
  struct {                                                                                         \
    __uint(type, map_type);                                                                        \
    __uint(max_entries, entries);                                                                  \
    __type(key, key_type);                                                                         \
    __type(value, value_type);                                                                     \
  } name SEC(".maps");
ZELK_MAPS(ZELK_DEFINE_MAP)
#undef ZELK_DEFINE_MAP
