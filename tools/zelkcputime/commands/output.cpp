#include <algorithm>
#include <cstdio>

#include "commands/commands.h"

namespace zelk::cli {

int fail(const std::string& message) {
  fflush(stdout);  // keeps the order of the two streams on a terminal
  fprintf(stderr, "zelkcputime: %s\n", message.c_str());
  return kExitFailure;
}

int usageError(const std::string& message) {
  fprintf(stderr, "zelkcputime: %s\nTry `zelkcputime --help`.\n", message.c_str());
  return kExitUsage;
}

std::string checkViewWords(const Options& options, const std::vector<std::string>& views) {
  const std::vector<std::string>& words = options.words;
  const std::string& command = words[0];
  const std::string view = words.size() > 1 ? words[1] : "";
  const auto isNamed = [](const std::string& v) { return v == "process" || v == "kthread"; };
  if (std::find(views.begin(), views.end(), view) == views.end()) {
    std::string all;
    for (const std::string& v : views)
      all += (all.empty() ? "" : ", ") + v + (isNamed(v) ? " NAME" : "");
    return command + " takes one of " + all;
  }
  const bool named = isNamed(view);
  if (words.size() != (named ? 3u : 2u)) {
    return command + " " + view + (named ? " takes one NAME" : " takes no NAME");
  }
  if (options.flag && view != "process") return "--flag applies to " + command + " process";
  return "";
}

void printOut(const std::string& text) { fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace zelk::cli
