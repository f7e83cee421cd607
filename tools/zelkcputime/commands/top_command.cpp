// top: the live view. Keeps the previous snapshot and shows the difference: the maps are shared
// with other consumers and are never reset here.
#include <android-base/file.h>
#include <curses.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <regex>
#include <thread>

#include "commands/commands.h"
#include "commands/library_log.h"
#include "core/possible_cpus.h"
#include "machine/demo_setup.h"
#include "machine/environment.h"
#include "machine/tracking.h"
#include "model/snapshot.h"
#include "model/snapshot_diff.h"
#include "views/frequency_source.h"
#include "views/top_view.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_policies.h"

namespace zelk::cli {
namespace {

namespace lib = com::zelkora;
using Clock = std::chrono::steady_clock;

constexpr size_t kBatchWidth = 120;
constexpr int kMinColumns = 60;
constexpr int kMinLines = 12;

volatile sig_atomic_t gStopSignal = 0;

void onStopSignal(int signal) { gStopSignal = signal; }

// Without SA_RESTART, so that a sleep or getch returns at once.
void catchStopSignals() {
  struct sigaction action = {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

double processCpuS() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// This process's own CPU use since it started showing frames, sampler thread included.
class SelfCost {
 public:
  SelfCost() : cpuS_(processCpuS()), start_(Clock::now()) {}
  double percent() const {
    const double wallS = std::chrono::duration<double>(Clock::now() - start_).count();
    return wallS > 0 ? 100 * (processCpuS() - cpuS_) / wallS : 0;
  }

 private:
  double cpuS_;
  Clock::time_point start_;
};

// No value when unreadable.
std::optional<std::vector<uint32_t>> onlineCpus() {
  std::string text;
  if (!android::base::ReadFileToString("/sys/devices/system/cpu/online", &text)) return {};
  return lib::parseCpuList(text);
}

struct Source {
  DemoMachine machine;
  std::optional<lib::PowerModel> model;
  std::vector<std::vector<uint64_t>> relatedCpus;  // per policy, as the library discovered them
  TopContext context;                              // policyCpus as of the last frame
};

// Per policy, its CPUs that are online. related_cpus keeps listing a CPU taken offline, whose
// capacity is gone; read again for each frame, as CPUs go offline and come back while the view
// runs (a CPU that changed within the interval counts as it is at its end). Without the online
// list, every related CPU.
void countOnlineCpus(Source* source) {
  const std::optional<std::vector<uint32_t>> online = onlineCpus();
  source->context.policyCpus.clear();
  for (const std::vector<uint64_t>& related : source->relatedCpus) {
    unsigned count = 0;
    for (const uint64_t cpu : related) {
      if (!online || std::find(online->begin(), online->end(), cpu) != online->end()) ++count;
    }
    source->context.policyCpus.push_back(count);
  }
}

// The object already pinned (by `load`) is used as it is; else it is loaded in a private
// namespace, as the demo does, with the sampled source where the machine needs it.
std::string setUp(const Options& options, Source* source) {
  size_t expected = 0;
  if (checkRoot().empty() && missingPins(&expected).empty()) {
    const Tracking tracking = joinTracking();
    if (tracking.by == 0) return tracking.error + " (run with -v for its messages)";
    source->context.policies =
        "the machine's cpufreq policies, through the loaded object, tracked by process " +
        std::to_string(tracking.by);
  } else if (std::string error = setUpDemo({options.sample, options.sampleMs}, &source->machine);
             !error.empty()) {
    return error;
  } else {
    source->context.policies = frequencySourceText(source->machine);
  }
  std::string note, error;
  if (!optionalModel(options, &source->model, &note, &error)) return error;
  const std::optional<std::vector<lib::CpuFreqPolicy>> policies = lib::getCpuFreqPolicies();
  if (!policies) return "the library could not discover the cpufreq policies";
  for (const lib::CpuFreqPolicy& policy : *policies) source->relatedCpus.push_back(policy.cpus);
  source->context.model = source->model ? &*source->model : nullptr;
  return "";
}

// The tables the frames may show: in batch, only the one asked for; interactive, every one, so
// that the first frame after a key covers its whole interval.
unsigned partsOf(const Options& options) {
  if (!options.batch) return kTotalPart | kProcessesPart | kKthreadsPart | kCgroupsPart;
  return kTotalPart | (options.cgroupView ? kCgroupsPart : kProcessesPart | kKthreadsPart);
}

TakenSnapshot take(unsigned parts) {
  SnapshotRequest request;
  request.parts = parts;
  TakenSnapshot taken = takeSnapshot(request);
  tellUnsettled(taken.unsettled);
  return taken;
}

// Sleeps until `until` or a stop signal.
void sleepUntil(Clock::time_point until) {
  while (gStopSignal == 0 && Clock::now() < until) {
    const auto left = until - Clock::now();
    std::this_thread::sleep_for(std::min<Clock::duration>(left, std::chrono::milliseconds(50)));
  }
}

// The next frame's difference; the previous snapshot moves on only when a new one was read.
// "" or the line to report.
std::string advance(Snapshot* previous, std::optional<SnapshotDiff>* diff) {
  TakenSnapshot taken = take(previous->parts);
  if (!taken.snapshot) return taken.error;
  DiffResult result = diffSnapshots(*previous, *taken.snapshot);
  *previous = std::move(*taken.snapshot);
  if (!result.diff) return result.error;
  *diff = std::move(result.diff);
  return "";
}

Clock::duration intervalOf(const Options& options) {
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.interval));
}

// The view the command line starts on; `match` outlives the settings that point to it.
TopSettings initialSettings(const Options& options, const std::optional<std::regex>& match) {
  TopSettings settings;
  settings.table = options.cgroupView    ? TopTable::kCgroups
                   : options.kthreadView ? TopTable::kKthreads
                                         : TopTable::kProcesses;
  settings.cgroups = {options.cgroupDepth, match ? &*match : nullptr};
  return settings;
}

// Why every task counts under the root cgroup, once the cgroups are shown.
void tellCgroupNote(const TopSettings& settings, bool* told) {
  if (*told || settings.table != TopTable::kCgroups) return;
  *told = true;
  if (std::string note = cgroupV2Note(); !note.empty()) tellNote("zelkcputime: note: " + note);
}

int runBatch(const Options& options, Source* source, Snapshot previous,
             const TopSettings& settings) {
  bool told = false;
  tellCgroupNote(settings, &told);
  const SelfCost cost;
  auto next = Clock::now();
  for (unsigned frame = 0; options.iterations == 0 || frame < options.iterations;) {
    next += intervalOf(options);
    sleepUntil(next);
    if (gStopSignal != 0) return 128 + gStopSignal;
    std::optional<SnapshotDiff> diff;
    if (std::string error = advance(&previous, &diff); !error.empty()) {
      fprintf(stderr, "zelkcputime: no frame this time: %s\n", error.c_str());
      continue;
    }
    countOnlineCpus(source);
    std::string text = frame > 0 ? "\n" : "";
    for (const std::string& line :
         topFrame(*diff, source->context, settings, cost.percent(), kBatchWidth, options.limit)) {
      text += line + "\n";
    }
    printOut(text);
    fflush(stdout);
    ++frame;
  }
  return kExitOk;
}

// The terminal is the view's from initscr to endwin, on every way out of runInteractive.
class Screen {
 public:
  Screen() {
    initscr();
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
    holdLibraryLog();
  }
  ~Screen() {
    endwin();
    releaseLibraryLog();
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
};

void draw(const std::optional<SnapshotDiff>& diff, const Source& source,
          const TopSettings& settings, double self, const Options& options,
          const std::string& problem) {
  erase();
  if (COLS < kMinColumns || LINES < kMinLines) {
    const std::string message = "terminal too small: " + std::to_string(COLS) + "x" +
                                std::to_string(LINES) + ", top needs at least " +
                                std::to_string(kMinColumns) + "x" + std::to_string(kMinLines);
    mvaddnstr(0, 0, message.c_str(), COLS);
    mvaddnstr(1, 0, "enlarge it, or press q to quit", COLS);
    refresh();
    return;
  }
  const size_t width = static_cast<size_t>(COLS);
  if (!diff) {
    char text[96];
    snprintf(text, sizeof(text), "zelkcputime top: counting the first %.1f s...", options.interval);
    mvaddnstr(0, 0, text, COLS);
  } else {
    const std::vector<std::string> header = topHeader(*diff, source.context, settings, self, width);
    int y = 0;
    for (const std::string& line : header) mvaddnstr(y++, 0, line.c_str(), COLS);
    ++y;
    attron(A_REVERSE);
    mvaddnstr(y++, 0, topColumns(source.context, settings.table).c_str(), COLS);
    attroff(A_REVERSE);
    for (const TaskRate& row : topRows(*diff, source.context, settings)) {
      if (y >= LINES - 1) break;
      mvaddnstr(y++, 0, topRowLine(row, source.context, settings.table).c_str(), COLS);
    }
  }
  const std::string keys =
      problem.empty()
          ? "c cpu  p power  f frequency  k kernel threads  g cgroups  space freeze  q quit"
          : "no new frame: " + problem;
  mvaddnstr(LINES - 1, 0, keys.c_str(), COLS);
  refresh();
}

// A key toggles its table against the processes.
TopTable toggled(TopTable shown, TopTable key) { return shown == key ? TopTable::kProcesses : key; }

int runInteractive(const Options& options, Source* source, Snapshot previous,
                   TopSettings settings) {
  const Screen screen;  // holds the notes until the terminal is given back
  const SelfCost cost;
  bool told = false;
  std::optional<SnapshotDiff> diff;
  std::string problem;
  auto next = Clock::now() + intervalOf(options);
  while (gStopSignal == 0) {
    tellCgroupNote(settings, &told);
    draw(diff, *source, settings, cost.percent(), options, problem);
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
    timeout(static_cast<int>(std::max<int64_t>(0, wait.count())));
    const int key = getch();
    if (key == 'q' || key == 'Q') break;
    switch (key) {
      case 'c':
        settings.sort = TopSort::kCpu;
        break;
      case 'p':
        settings.sort = TopSort::kPower;
        break;
      case 'f':
        settings.sort = TopSort::kFrequency;
        break;
      case 'k':
        settings.table = toggled(settings.table, TopTable::kKthreads);
        break;
      case 'g':
        settings.table = toggled(settings.table, TopTable::kCgroups);
        break;
      case ' ':
        settings.frozen = !settings.frozen;
        break;
      default:
        break;
    }
    if (Clock::now() < next) continue;
    next = Clock::now() + intervalOf(options);
    // Frozen, the frame stays; the snapshot it was taken from stays too, so that the frame
    // after it covers all the time since.
    if (settings.frozen) continue;
    problem = advance(&previous, &diff);
    if (problem.empty()) countOnlineCpus(source);
  }
  return gStopSignal != 0 ? 128 + gStopSignal : kExitOk;
}

}  // namespace

int runTop(const Options& options) {
  if (options.words.size() != 1) return usageError("top takes no argument");
  if (options.given.count("--iterations") != 0 && !options.batch) {
    return usageError("--iterations applies to --batch");
  }
  if (options.kthreadView && options.cgroupView) {
    return usageError("--kthreads and --cgroups exclude each other");
  }
  catchStopSignals();
  Source source;
  if (std::string error = setUp(options, &source); !error.empty()) return fail(error);
  TakenSnapshot first = take(partsOf(options));
  if (!first.snapshot) return fail(first.error);
  std::optional<std::regex> match;
  if (!options.cgroupMatch.empty()) {
    match.emplace(options.cgroupMatch, std::regex::ECMAScript | std::regex::nosubs);
  }
  const TopSettings settings = initialSettings(options, match);
  if (options.batch) return runBatch(options, &source, std::move(*first.snapshot), settings);
  try {
    return runInteractive(options, &source, std::move(*first.snapshot), settings);
  } catch (const std::exception& error) {
    return fail(error.what());  // after the screen's destructor gave the terminal back
  }
}

}  // namespace zelk::cli
