// The command line: a command with its arguments, and options anywhere after the program name.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "map_sizes.h"
#include "serve/http_server.h"

namespace zelk::cli {

enum class Format { kText, kJson, kCsv };

inline constexpr double kDefaultProcessMinSeconds = 1;

struct Options {
  std::vector<std::string> words;  // the command and its arguments, in order
  std::set<std::string> given;     // the options used, as written ("--json")
  Format format = Format::kText;
  size_t limit = 0;  // 0: every row
  unsigned seconds = 5;
  bool flag = false;        // the foreground entry of a process
  bool background = false;  // its background entry
  bool replace = false;
  bool sample = false;     // sample the current frequency of every policy, not only tableless
  unsigned sampleMs = 20;  // the sampler's period
  loader::MapSizes sizes;  // of load; 0: the machine's default
  std::string listen, perFrequency;  // of serve, as given
  bool verbose = false;
  bool help = false;
  std::string model;              // --model PATH: a power model
  std::optional<double> voltage;  // --voltage V: a power profile's voltage
  double interval = 2;            // top --interval S: seconds between frames
  unsigned iterations = 0;        // top --iterations N: frames before it ends; 0: until q
  bool batch = false;             // top --batch: plain text frames
  bool kthreadView = false;       // top --kthreads: start on the kernel threads
  bool cgroupView = false;        // top --cgroups: start on the cgroups
  // show cgroups --depth N, serve --cgroup-depth N: levels below the root; none: every level
  // (serve's default is its own).
  std::optional<unsigned> cgroupDepth;
  std::string cgroupMatch;   // --match / --cgroup-match REGEX (ECMAScript), as given
  std::string processMatch;  // serve --process-match REGEX, as given
  // serve --process-min-seconds S: CPU time a name needs for series of its own.
  double processMinSeconds = kDefaultProcessMinSeconds;
  bool classKthreads = false;  // serve --class-times-kthreads: class series for kernel threads too
  // serve --web.header-timeout S, --web.max-connections N, --web.max-body-bytes N.
  HttpLimits web;
  std::string webConfigFile;  // serve --web.config.file PATH
};

inline constexpr unsigned kMaxCgroupDepth = 64;

struct ParsedOptions {
  Options options;
  std::string error;  // "" when the command line is well formed
};

// Options: --json, --csv, --limit N, --seconds N (1 to 3600), --sample, --sample-ms N (1 to
// 1000), --flag, --background, --replace, --names N, --kthreads N, --pids N, --model PATH,
// --voltage V (volts, a positive decimal), --interval S (0.1 to 3600 s), --iterations N, --batch,
// --listen ADDR:PORT, --per-frequency REGEX, --depth/--cgroup-depth N (0 to 64), --match/
// --cgroup-match REGEX, --process-match REGEX, --process-min-seconds S (0 to 10^9),
// --class-times-kthreads, --cgroups N, --web.header-timeout S (0.1 to 3600),
// --web.max-connections N (1 to 65536), --web.max-body-bytes N (0 to 2^30), --web.config.file
// PATH, -v/--verbose, -h/--help; "--" ends the options, so that a
// task named like one can be given. After `top`, --kthreads and --cgroups take no value.
ParsedOptions parseOptions(const std::vector<std::string>& args);

}  // namespace zelk::cli
