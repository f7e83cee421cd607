#include <algorithm>
#include <cstdio>

#include "commands/commands.h"
#include "commands/library_log.h"
#include "machine/attached_programs.h"
#include "views/unsettled_note.h"

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
  const auto isNamed = [](const std::string& v) {
    return v == "process" || v == "kthread" || v == "cgroup";
  };
  const auto argument = [](const std::string& v) { return v == "cgroup" ? "PATH" : "NAME"; };
  if (std::find(views.begin(), views.end(), view) == views.end()) {
    std::string all;
    for (const std::string& v : views)
      all += (all.empty() ? "" : ", ") + v + (isNamed(v) ? std::string(" ") + argument(v) : "");
    return command + " takes one of " + all;
  }
  const bool named = isNamed(view);
  if (words.size() != (named ? 3u : 2u)) {
    return command + " " + view + (named ? " takes one " : " takes no ") + argument(view);
  }
  return checkClassOptions(options, view, command);
}

std::string checkClassOptions(const Options& options, const std::string& view,
                              const std::string& command) {
  for (const auto& [given, name] :
       {std::pair{options.flag, "--flag"}, std::pair{options.background, "--background"}}) {
    if (given && view != "process")
      return std::string(name) + " applies to " + command + " process";
  }
  if (options.flag && options.background) return "--flag and --background exclude each other";
  return "";
}

ProcessClass processClass(const Options& options) {
  if (options.flag) return ProcessClass::kForeground;
  return options.background ? ProcessClass::kBackground : ProcessClass::kBoth;
}

void printOut(const std::string& text) { fwrite(text.data(), 1, text.size(), stdout); }

SnapshotQueries readingQueries() {
  SnapshotQueries queries;
  // Settling while no process tracks would charge the running tasks for all the time since the
  // last switch the detached program saw: the counts stand still then, and are exact as they are.
  if (pidsTracking().empty()) queries.settle = nullptr;
  return queries;
}

void tellUnsettled(int error) {
  if (error != 0) tellNote(unsettledNote(error));
}

}  // namespace zelk::cli
