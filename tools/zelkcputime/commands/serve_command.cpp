// serve: a Prometheus exporter. Tracking runs in this process, as with start; the counts are read
// at each scrape and never cleared, since other consumers share the maps and counters must only
// grow (a reset by someone else shows as a counter reset, which Prometheus handles).
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <optional>
#include <regex>

#include "commands/commands.h"
#include "machine/demo_setup.h"
#include "machine/environment.h"
#include "machine/power_model_file.h"
#include "machine/tracking.h"
#include "model/cgroup_rows.h"
#include "object_loader.h"
#include "serve/http_server.h"
#include "serve/metrics_exporter.h"
#include "views/frequency_source.h"
#include "zelkcpufreqtime.h"

namespace zelk::cli {
namespace {

// A policy without a frequency table (or --sample): the library cannot count on the machine's
// own tree, so serve counts as the demo does, in a namespace of its own on sampled frequencies.
bool needsSampling(const Options& options) {
  if (options.sample) return !cpufreqPolicies().empty();
  const std::string problem = checkCpufreq();
  return !problem.empty() && problem.find("publishes no frequency table") != std::string::npos;
}

// Loads the kernel object when its pins are missing, as `zelkcputime load` would; then the
// checks of every command that uses it. "" when ready, else the message.
std::string loadIfNeeded() {
  size_t expected = 0;
  if (!missingPins(&expected).empty() && !cpufreqPolicies().empty()) {
    const loader::Outcome outcome = loader::load();
    if (!outcome.ok()) return outcome.message;
    fprintf(stderr, "zelkcputime: %s\n", outcome.message.c_str());
  }
  return checkReady();
}

}  // namespace

int runServe(const Options& options) {
  if (options.words.size() != 1) return usageError("serve takes no argument");
  ListenAddress address;
  const std::string listen = options.given.count("--listen") != 0 ? options.listen : kDefaultListen;
  if (std::string usage = parseListen(listen, &address); !usage.empty()) return usageError(usage);
  std::optional<std::regex> perFrequency;
  if (options.given.count("--per-frequency") != 0) {
    try {
      perFrequency.emplace(options.perFrequency, std::regex::ECMAScript | std::regex::nosubs);
    } catch (const std::regex_error& error) {
      return usageError("--per-frequency: not a regular expression: " + options.perFrequency);
    }
  }
  // Checked when the options were read.
  std::optional<std::regex> cgroupMatch;
  if (options.given.count("--cgroup-match") != 0) {
    cgroupMatch.emplace(options.cgroupMatch, std::regex::ECMAScript | std::regex::nosubs);
  }
  std::optional<std::regex> processMatch;
  if (options.given.count("--process-match") != 0) {
    processMatch.emplace(options.processMatch, std::regex::ECMAScript | std::regex::nosubs);
  }
  if (std::string message = checkRoot(); !message.empty()) return fail(message);
  WebConfig web;
  const bool webConfig = options.given.count("--web.config.file") != 0;
  if (webConfig) {
    if (std::string error = loadWebConfig(options.webConfigFile, &web); !error.empty()) {
      return fail(error);
    }
  }

  // Blocked before any thread starts (the server's, the library's), which inherit the mask, so
  // that only the wait below takes these signals. A client that goes away mid-answer must not
  // end the process.
  sigset_t stops;
  sigemptyset(&stops);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stops, signal);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  signal(SIGPIPE, SIG_IGN);

  // Each of the server's workers would otherwise grow an allocator arena of its own to the
  // size of an exposition; scrapes share one collection anyway.
  mallopt(M_ARENA_MAX, 2);
  // Expositions and their parts above 64 KiB get pages of their own, given back when freed; glibc
  // would otherwise raise this threshold after the first such free and keep them in the heap,
  // which concurrent scrapes then fragment, so that resident memory crept up for minutes.
  mallopt(M_MMAP_THRESHOLD, 64 * 1024);
  // Made once tracking runs: the model is matched to the policies the library found, and the
  // frequency source is known.
  std::optional<com::zelkora::PowerModel> model;
  std::optional<MetricsExporter> exporter;
  std::atomic<bool> tracking{false};
  HttpServer server;
  // Listening first: a port in use is told before anything is loaded.
  const std::string error = server.start(
      address,
      [&](const std::string& accept) -> HttpResponse {
        if (!tracking) return {503, "text/plain; charset=utf-8", "zelkcputime: starting\n"};
        return exporter->scrape(accept);
      },
      options.web, web);
  if (!error.empty()) return fail(error);
  DemoMachine sampled;
  pid_t tracker = getpid();  // in the sampled namespace, always this process
  if (needsSampling(options)) {
    if (std::string error = setUpDemo({options.sample, options.sampleMs}, &sampled);
        !error.empty()) {
      return fail(error);
    }
    fprintf(stderr, "zelkcputime: %s\n", frequencySourceText(sampled).c_str());
  } else {
    if (std::string message = loadIfNeeded(); !message.empty()) return fail(message);
    const Tracking joined = joinTracking();
    if (joined.by == 0) return fail(joined.error + " (its messages above say why)");
    tracker = joined.by;
  }
  if (options.given.count("--model") != 0) {
    com::zelkora::PowerModelResult loaded = loadModelForTool(options.model, options.voltage);
    if (!loaded.model) return fail(loaded.error);
    model = std::move(loaded.model);
  }
  if (const std::string note = cgroupV2Note(); !note.empty()) {
    fprintf(stderr, "zelkcputime: note: %s\n", note.c_str());
  }
  exporter.emplace(CollectSources{}, SnapshotRequest{}, perFrequency ? &*perFrequency : nullptr,
                   model ? &*model : nullptr, sampled.sampledMs,
                   CgroupRowSettings{options.cgroupDepth.value_or(kServeCgroupDepth),
                                     cgroupMatch ? &*cgroupMatch : nullptr},
                   NameBounds{processMatch ? &*processMatch : nullptr,
                              static_cast<uint64_t>(options.processMinSeconds * 1e9), nullptr},
                   options.classKthreads);
  tracking = true;
  // Beside another tracker the counts grow while that one runs.
  printOut(std::string("serving ") + (web.tls ? "https" : "http") + "://" + address.text() +
           "/metrics; tracking in process " + std::to_string(tracker) +
           (tracker == getpid() ? " until SIGINT or SIGTERM\n"
                                : " (another process); serving until SIGINT or SIGTERM\n"));
  fflush(stdout);
  // With a web configuration, SIGHUP reads it again; without, it stops serve as ever.
  for (int signal = 0; sigwait(&stops, &signal) == 0;) {
    if (signal != SIGHUP || !webConfig) break;
    WebConfig next;
    std::string error = loadWebConfig(options.webConfigFile, &next);
    if (error.empty()) error = server.reload(next);
    if (error.empty()) {
      fprintf(stderr, "zelkcputime: %s read again\n", options.webConfigFile.c_str());
    } else {
      fprintf(stderr, "zelkcputime: %s; the configuration in force stays\n", error.c_str());
    }
  }
  server.stop();
  printOut("stopped; the counts stay in the maps\n");
  return kExitOk;
}

}  // namespace zelk::cli
