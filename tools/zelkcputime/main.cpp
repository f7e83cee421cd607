// zelkcputime: CPU time per CPU frequency, through libzelkcpufreqtime and its kernel object.
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "commands/library_log.h"
#include "commands/options.h"

namespace {

using namespace zelk::cli;

constexpr const char kUsage[] =
    "usage: zelkcputime COMMAND [ARGS] [OPTIONS]\n"
    "\n"
    "  demo [--seconds N] [--model PATH]  load, track and sample this machine for N s\n"
    "                          (default 5) in a private mount namespace, then show what was\n"
    "                          counted, and its energy under the model (or the Energy Model)\n"
    "       [--sample] [--sample-ms P]  a policy without a frequency table counts in bins\n"
    "                          at its scaling_cur_freq read every P ms (default 20);\n"
    "                          --sample does so for every policy (no frequency events)\n"
    "  load [--replace] [--names N] [--kthreads N] [--pids N] [--cgroups N]\n"
    "                          load the kernel object and pin it under /sys/fs/bpf, its maps\n"
    "                          sized for N process names, kernel threads, pids and cgroups\n"
    "                          (defaults from the CPUs and pid_max)\n"
    "  unload                  remove the kernel object's pins\n"
    "  start [--seconds N]     track until interrupted (or for N s); counts stay in the maps\n"
    "  status                  root, bpffs, pins, policies, support, where tracking runs\n"
    "  show total              whole-system time per frequency, with a residency chart\n"
    "  show processes          busiest processes (name and foreground flag)\n"
    "  show kthreads           busiest kernel threads\n"
    "  show process NAME [--flag | --background]  one process: its foreground and background\n"
    "                          entries summed, or the one --flag or --background picks\n"
    "  show kthread NAME       one kernel thread\n"
    "  show top | show bg      foreground or background time per task name\n"
    "  show freqs              the frequency table\n"
    "  show cgroups [--depth N] [--match REGEX]  time per cgroup v2, each row with its\n"
    "                          descendants', folded N levels below the root, the paths\n"
    "                          REGEX finds; units, containers and pods named\n"
    "  show cgroup PATH        one cgroup with its descendants (PATH under the v2 mount)\n"
    "  show energy [total | processes | kthreads | kthread NAME |\n"
    "               process NAME [--flag | --background] |\n"
    "               cgroups [--depth N] [--match REGEX]]\n"
    "      [--model PATH] [--voltage V]  energy per task from a power model: an Energy Model\n"
    "                          directory (default /sys/kernel/debug/energy_model), a\n"
    "                          power_profile.xml (charge in µAh, or energy at V volts) or a\n"
    "                          CSV file policy,freq_khz,power_uw\n"
    "  top [--interval S] [--model PATH] [--kthreads | --cgroups [--depth N] [--match REGEX]]\n"
    "      [--batch --iterations N] [--limit N]\n"
    "                          live view of the last interval (default 2 s): CPU use, average\n"
    "                          frequency, bands and power per task, or per cgroup with its\n"
    "                          descendants; keys c/p/f sort by CPU, power, frequency,\n"
    "                          k kernel threads, g cgroups, space freezes, q quits\n"
    "  reset processes | kthreads | total | topbg | cgroups | process NAME [--flag] |\n"
    "        kthread NAME\n"
    "  serve [--listen ADDR:PORT] [--per-frequency REGEX] [--model PATH [--voltage V]]\n"
    "                          load if needed, track, and serve Prometheus metrics on\n"
    "                          http://ADDR:PORT/metrics (default 127.0.0.1:10410) until stopped\n"
    "        [--cgroup-depth N] [--cgroup-match REGEX]  cgroups N levels deep (default 3)\n"
    "        [--process-match REGEX] [--process-min-seconds S]  series of their own for the\n"
    "                          task names that match and have run S seconds (default 1); the\n"
    "                          rest count in comm=\"other\"; the same for the foreground\n"
    "                          and background times of processes\n"
    "        [--class-times-kthreads]  those times for kernel threads too\n"
    "        [--web.header-timeout S] [--web.max-connections N] [--web.max-body-bytes N]\n"
    "                          a request header's deadline (default 5 s), connections at\n"
    "                          once (default 512), a request body's size (default 65536)\n"
    "        [--web.config.file PATH]  TLS and basic authentication, as Prometheus exporters\n"
    "                          read them; SIGHUP reads the file again\n"
    "\n"
    "  --json, --csv           machine-readable output (show, demo; status: --json)\n"
    "  --limit N               at most N rows per table (0: all; default 20 in tables, 10 in\n"
    "                          the demo, all in JSON and CSV)\n"
    "  -v, --verbose           show every library log line, not only errors\n"
    "  --                      ends the options, for a NAME that starts with '-'\n";

struct Command {
  const char* name;
  int (*run)(const Options&);
  std::set<std::string> options;  // besides --verbose and --help
};

const Command kCommands[] = {
    {"demo",
     runDemo,
     {"--seconds", "--json", "--csv", "--limit", "--sample", "--sample-ms", "--model",
      "--voltage"}},
    {"load", runLoad, {"--replace", "--names", "--kthreads", "--pids", "--cgroups"}},
    {"unload", runUnload, {}},
    {"start", runStart, {"--seconds"}},
    {"status", runStatus, {"--json"}},
    {"show",
     runShow,
     {"--json", "--csv", "--limit", "--flag", "--background", "--model", "--voltage", "--depth",
      "--match"}},
    {"reset", runReset, {"--flag"}},
    {"top",
     runTop,
     {"--interval", "--iterations", "--batch", "--kthreads", "--cgroups", "--depth", "--match",
      "--model", "--voltage", "--limit", "--sample", "--sample-ms"}},
    {"serve",
     runServe,
     {"--listen", "--model", "--voltage", "--per-frequency", "--sample", "--sample-ms",
      "--cgroup-depth", "--cgroup-match", "--process-match", "--process-min-seconds",
      "--class-times-kthreads", "--web.header-timeout", "--web.max-connections", "--web.max-body-bytes",
      "--web.config.file"}},
};

}  // namespace

int main(int argc, char** argv) {
  const ParsedOptions parsed = parseOptions(std::vector<std::string>(argv + 1, argv + argc));
  if (!parsed.error.empty()) return usageError(parsed.error);
  const Options& options = parsed.options;
  if (options.help) {
    printf("%s", kUsage);
    return kExitOk;
  }
  if (options.words.empty()) {
    fprintf(stderr, "%s", kUsage);
    return kExitUsage;
  }
  for (const Command& command : kCommands) {
    if (options.words[0] != command.name) continue;
    for (const std::string& option : options.given) {
      if (option != "--verbose" && command.options.count(option) == 0) {
        return usageError(option + " does not apply to " + command.name);
      }
    }
    routeLibraryLog(options.verbose);
    const int status = command.run(options);
    // The library's background thread is never joined and may still be using the library's
    // globals: end without running their destructors under it.
    fflush(nullptr);
    _exit(status);
  }
  return usageError("unknown command " + options.words[0]);
}
