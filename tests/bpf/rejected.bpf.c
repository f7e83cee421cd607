/* An object the verifier must refuse: it reads past the end of a map value. */
/* clang-format off */
#include "vmlinux.h"
#include <bpf/bpf_helpers.h>
/* clang-format on */

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} rejected_map SEC(".maps");

SEC("tracepoint/sched/sched_switch")
int out_of_bounds(void* ctx) {
  __u32 key = 0;
  __u64* value = bpf_map_lookup_elem(&rejected_map, &key);

  return value ? (int)value[4] : 0;
}

char LICENSE[] SEC("license") = "GPL";
