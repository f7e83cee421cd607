#include "tool_run.h"

#include <unistd.h>

#include <regex>

namespace zelk::testbed {

ChildResult runTool(const Args& args, bool asNobody, bool withStderr) {
  const auto nobody = [] {
    return setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0;
  };
  return runProgram(ZELK_TOOL_PATH, args, asNobody ? +nobody : nullptr, withStderr);
}

bool contains(const std::string& text, const std::string& pattern) {
  return std::regex_search(text, std::regex(pattern));
}

uint64_t totalNs(const std::string& json) {
  uint64_t sum = 0;
  static const std::regex number(R"("total_ns":([0-9]+))");
  for (std::sregex_iterator it(json.begin(), json.end(), number), end; it != end; ++it) {
    sum += std::stoull((*it)[1]);
  }
  return sum;
}

}  // namespace zelk::testbed
