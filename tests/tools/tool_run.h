// Runs the built zelkcputime in a child of the test, which inherits the test's namespace.
#pragma once

#include <string>
#include <vector>

namespace zelk::testbed {

struct ToolRun {
  int status = -1;  // exit status; -1 when the tool did not exit by itself
  std::string output;
};

enum class ToolUser { kRoot, kNobody };
enum class ToolStreams { kBoth, kStdoutOnly };

ToolRun runTool(const std::vector<std::string>& args, ToolUser user = ToolUser::kRoot,
                ToolStreams streams = ToolStreams::kBoth);

}  // namespace zelk::testbed
