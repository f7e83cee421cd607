#include <cstdio>

#include "commands.h"

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

void printOut(const std::string& text) { fwrite(text.data(), 1, text.size(), stdout); }

}  // namespace zelk::cli
