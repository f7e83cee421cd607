// reset: each of the library's reset operations, by name.
#include "commands/commands.h"
#include "machine/environment.h"
#include "views/text_table.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_cgroups.h"

namespace zelk::cli {

int runReset(const Options& options) {
  namespace lib = com::zelkora;
  const std::vector<std::string>& words = options.words;
  const std::string usage = checkViewWords(
      options, {"processes", "kthreads", "process", "kthread", "total", "topbg", "cgroups"});
  if (!usage.empty()) return usageError(usage);
  const std::string& what = words[1];
  if (std::string message = checkReady(); !message.empty()) return fail(message);

  bool done = false;
  std::string cleared;
  if (what == "processes") {
    done = lib::clearProcessTimes();
    cleared = "the times of every process";
  } else if (what == "kthreads") {
    done = lib::clearKthreadTimes();
    cleared = "the times of every kernel thread";
  } else if (what == "process") {
    done = lib::clearTimesFromProcess(words[2], options.flag);
    cleared = "the " + std::string(options.flag ? "foreground" : "background") +
              " times of process " + printableName(words[2]);
  } else if (what == "kthread") {
    done = lib::clearTimesFromKthread(words[2]);
    cleared = "the times of kernel thread " + printableName(words[2]);
  } else if (what == "cgroups") {
    done = lib::clearCgroupTimes();
    cleared = "the times of every cgroup";
  } else if (what == "total") {
    done = lib::clearTotalCpuTime();
    cleared = "the whole system's times";
  } else {
    done = lib::clearTopAndBgTimes();
    cleared = "the foreground and background times";
  }
  if (!done)
    return fail("could not reset " + cleared + " (run with -v for the library's messages)");
  printOut("reset " + cleared + "\n");
  return kExitOk;
}

}  // namespace zelk::cli
