// The subcommands. Each returns the process's exit status.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "commands/options.h"
#include "model/snapshot.h"
#include "zelkcpufreqtime_energy.h"

namespace zelk::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // the machine or the library could not do it
inline constexpr int kExitUsage = 2;    // the command line is wrong

int runLoad(const Options& options);
int runUnload(const Options& options);
int runStart(const Options& options);
int runStatus(const Options& options);
int runShow(const Options& options);
// show energy [total | processes | kthreads | process NAME [--flag] | kthread NAME]
int runShowEnergy(const Options& options);
int runReset(const Options& options);
int runDemo(const Options& options);
int runTop(const Options& options);
int runServe(const Options& options);

// Prints "zelkcputime: <message>" to stderr and returns kExitFailure.
int fail(const std::string& message);
// Prints "zelkcputime: <message>" and a hint at --help to stderr and returns kExitUsage.
int usageError(const std::string& message);
// Checks "COMMAND VIEW [NAME]" for show and reset: VIEW one of `views`, a NAME after "process"
// and "kthread" only, --flag after "process" only. Returns the usage message, "" when well formed.
std::string checkViewWords(const Options& options, const std::vector<std::string>& views);
// --flag and --background: after `process` only, and not both. Returns the usage message, "" when
// well formed.
std::string checkClassOptions(const Options& options, const std::string& view,
                              const std::string& command);
// The entry of a process that --flag or --background picks; both classes without either.
ProcessClass processClass(const Options& options);
// Writes `text` to stdout.
void printOut(const std::string& text);
// The library's queries for a command that reads what another process may track (show, show
// energy): they settle only while some process tracks.
SnapshotQueries readingQueries();
// The note for a snapshot's or a task's `unsettled`, to stderr; nothing for 0.
void tellUnsettled(int error);

// The model of --model PATH, else the machine's Energy Model when it has one that fits its
// policies (else none, with a note in `note`), for the views where energy is optional. False with
// `error` set when the given model cannot be used.
bool optionalModel(const Options& options, std::optional<com::zelkora::PowerModel>* model,
                   std::string* note, std::string* error);

}  // namespace zelk::cli
