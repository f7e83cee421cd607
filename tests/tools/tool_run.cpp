#include "tool_run.h"

#include <fcntl.h>
#include <unistd.h>

#include "child_process.h"

namespace zelk::testbed {

ToolRun runTool(const std::vector<std::string>& args, ToolUser user, ToolStreams streams) {
  const ChildResult child = runInChild([&](int out) {
    // nobody: setresuid clears every capability, as for a user without root.
    if (user == ToolUser::kNobody &&
        (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)) {
      return 126;
    }
    const int err = streams == ToolStreams::kBoth ? out : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) return 126;
    std::vector<char*> argv = {const_cast<char*>(ZELK_TOOL_PATH)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    return 127;
  });
  return {child.exited ? child.status : -1, child.output};
}

}  // namespace zelk::testbed
