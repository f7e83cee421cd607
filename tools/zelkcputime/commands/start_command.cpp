// start: tracking runs while this process runs, because the programs' attachments belong to
// the process that made them; the counts stay in the pinned maps after it ends.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "commands/commands.h"
#include "machine/environment.h"
#include "machine/tracking.h"

namespace zelk::cli {

int runStart(const Options& options) {
  if (options.words.size() != 1) return usageError("start takes no argument");
  if (std::string message = checkReady(); !message.empty()) return fail(message);

  // Blocked before the library starts its thread, which inherits the mask, so that only the
  // wait below takes these signals.
  sigset_t stops;
  sigemptyset(&stops);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stops, signal);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);

  const Tracking tracking = joinTracking();
  if (tracking.by == 0) return fail(tracking.error + " (its messages above say why)");
  if (tracking.by != getpid()) {
    return fail("tracking already runs in process " + std::to_string(tracking.by) +
                ", and the kernel takes the programs once: `zelkcputime show` reads its counts");
  }
  const bool timed = options.given.count("--seconds") != 0;
  printOut(
      "tracking in process " + std::to_string(getpid()) +
      (timed ? " for " + std::to_string(options.seconds) + " s" : " until interrupted (Ctrl-C)") +
      "; `zelkcputime show` reads the counts meanwhile\n");
  fflush(stdout);
  if (timed) {
    const timespec timeout = {static_cast<time_t>(options.seconds), 0};
    while (sigtimedwait(&stops, nullptr, &timeout) < 0 && errno == EINTR) {
    }
  } else {
    int signal = 0;
    sigwait(&stops, &signal);
  }
  printOut("tracking stopped; the counts stay in the maps until `zelkcputime unload`\n");
  return kExitOk;
}

}  // namespace zelk::cli
