// Captures every message that the library sends to liblog, debug ones included.
#pragma once

#include <android/log.h>

#include <string>
#include <vector>

namespace zelk::testbed {

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
};

class LogCapture {
 public:
  // Installs the capturing logger (process-wide) and forgets earlier lines.
  LogCapture();
  std::vector<LogLine> lines() const;
  // Lines whose text contains `needle`.
  size_t count(const std::string& needle) const;
  void clear();
};

// The text with the "[function:line] " prefix's line number replaced by N, to compare exactly.
std::string withoutLine(const std::string& text);

}  // namespace zelk::testbed
