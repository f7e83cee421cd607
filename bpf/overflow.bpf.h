/* What the programs do when a counting map is full: the time goes to the map's overflow entry
 * (records.h), and overflow_count_map counts it. */
#pragma once

#include "maps.bpf.h"

/* Writes the overflow name into a 16-byte name. */
static __always_inline void zelk_overflow_name(char dst[ZELK_COMM_LEN]) {
  const __u64 low = ZELK_OVERFLOW_COMM_LOW;
  const __u64 high = ZELK_OVERFLOW_COMM_HIGH;

  __builtin_memcpy(dst, &low, 8);
  __builtin_memcpy(dst + 8, &high, 8);
}

static __always_inline void zelk_count(__u32 counter) {
  zelk_u64* count = bpf_map_lookup_elem(&overflow_count_map, &counter);

  /* Per-CPU, and tracing programs do not nest on a CPU: a plain add is safe. A settle
   * (settle_cpu) can interrupt them, but it adds only to the overflow counts, which only it and
   * the switch add to. */
  if (count) *count += 1;
}

/* The overflow entry `key` of `map`, counted as an overflowed update; NULL, counted as a lost one,
 * when a clear removed it since the caller made sure of it. */
static __always_inline void* zelk_overflow_entry(void* map, const void* key) {
  void* entry = bpf_map_lookup_elem(map, key);

  zelk_count(entry ? ZELK_OVERFLOWED_UPDATES : ZELK_LOST_UPDATES);
  return entry;
}
