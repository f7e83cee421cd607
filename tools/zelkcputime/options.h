// The command line: a command with its arguments, and options anywhere after the program name.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "map_sizes.h"

namespace zelk::cli {

enum class Format { kText, kJson, kCsv };

struct Options {
  std::vector<std::string> words;  // the command and its arguments, in order
  std::set<std::string> given;     // the options used, as written ("--json")
  Format format = Format::kText;
  size_t limit = 0;  // 0: every row
  unsigned seconds = 5;
  bool flag = false;  // the foreground entry of a process
  bool replace = false;
  loader::MapSizes sizes;                   // of load; 0: the machine's default
  std::string listen, model, perFrequency;  // of serve, as given
  bool verbose = false;
  bool help = false;
};

struct ParsedOptions {
  Options options;
  std::string error;  // "" when the command line is well formed
};

// Options: --json, --csv, --limit N, --seconds N (1 to 3600), --flag, --replace, --names N,
// --kthreads N, --pids N, --listen ADDR:PORT, --model PATH, --per-frequency REGEX, -v/--verbose,
// -h/--help; "--" ends the options, so that a task named like
// one can be given.
ParsedOptions parseOptions(const std::vector<std::string>& args);

}  // namespace zelk::cli
