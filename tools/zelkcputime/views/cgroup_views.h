// The cgroup views in each format: rows whose time includes their descendants'.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/cgroup_rows.h"
#include "views/json_writer.h"

namespace zelk::cli {

// "unit nginx.service, pod 0f1e..., container 0123456789ab": what a row's path names, for people;
// "" when it names nothing.
std::string workloadText(const CgroupWorkload& workload);

// Busiest first, then by path; the first `limit` rows, or all when `limit` is 0.
std::vector<CgroupRow> sortedCgroupRows(std::vector<CgroupRow> rows, size_t limit);

// The header line (what a row holds, down to which depth) and the table, as a tree: each row its
// last component, indented below its parent.
std::string textCgroupTable(const FreqTable& freqs, const std::vector<CgroupRow>& rows,
                            std::optional<unsigned> depth);
// "cgroup PATH with its descendants", and the workload where the path names one.
std::string cgroupTitle(const CgroupRow& row);

// {"path":"/a","unit":"x.service","container_id":"...","pod_uid":"...","total_ns":N,
//  "time_ns":[[...]]}, the workload fields only where they apply.
void writeCgroup(JsonWriter& json, const CgroupRow& row);
void writeCgroups(JsonWriter& json, const std::vector<CgroupRow>& rows);

// Table "cgroup", the path as the name.
std::string csvCgroups(const FreqTable& freqs, const std::vector<CgroupRow>& rows);

}  // namespace zelk::cli
