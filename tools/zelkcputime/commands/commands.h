// The subcommands. Each returns the process's exit status.
#pragma once

#include <string>
#include <vector>

#include "commands/options.h"

namespace zelk::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // the machine or the library could not do it
inline constexpr int kExitUsage = 2;    // the command line is wrong

int runLoad(const Options& options);
int runUnload(const Options& options);
int runStart(const Options& options);
int runStatus(const Options& options);
int runShow(const Options& options);
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
// Writes `text` to stdout.
void printOut(const std::string& text);

}  // namespace zelk::cli
