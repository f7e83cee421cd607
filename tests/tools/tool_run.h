// The built zelkcputime, run in a child that inherits the test's private namespace, for the tests
// of its commands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "child_process.h"
#include "namespace.h"

namespace zelk::testbed {

using Args = std::vector<std::string>;

inline constexpr const char kTotalPin[] =
    "/sys/fs/bpf/map_zelkCputimeInState_total_cpu_time_in_state_map";

// As root, or as nobody (setresuid clears every capability).
ChildResult runTool(const Args& args, bool asNobody = false, bool withStderr = true);

bool contains(const std::string& text, const std::string& pattern);

// Sums the "total_ns" numbers of a show --json output.
uint64_t totalNs(const std::string& json);

// With tracefs, for the commands that attach the programs.
class ToolTest : public KernelTest {
 protected:
  NamespaceOptions namespaceOptions() const override { return {.tracefs = true}; }
};

}  // namespace zelk::testbed
