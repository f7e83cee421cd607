#include "libbpf_messages.h"

#include <bpf/libbpf.h>

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <sstream>

namespace zelk::loader {
namespace {

std::string gText;
libbpf_print_fn_t gPrevious = nullptr;

int collect(enum libbpf_print_level level, const char* format, va_list args) {
  if (level == LIBBPF_DEBUG) return 0;
  char line[4096];
  const int length = vsnprintf(line, sizeof(line), format, args);
  if (length > 0) gText.append(line, std::min(static_cast<size_t>(length), sizeof(line) - 1));
  return length;
}

}  // namespace

LibbpfMessages::LibbpfMessages() {
  gText.clear();
  gPrevious = libbpf_set_print(collect);
}

LibbpfMessages::~LibbpfMessages() { libbpf_set_print(gPrevious); }

const std::string& LibbpfMessages::text() const { return gText; }

VerifierRejection findVerifierRejection(const std::string& text, size_t maxLines) {
  static const std::string kBegin = "-- BEGIN PROG LOAD LOG --";
  static const std::string kEnd = "-- END PROG LOAD LOG --";
  VerifierRejection rejection;
  const size_t begin = text.find(kBegin);
  if (begin == std::string::npos) return rejection;
  // libbpf names the program on the line before the log: "libbpf: prog 'name': ...".
  const size_t quote = text.rfind("prog '", begin);
  if (quote != std::string::npos) {
    const size_t start = quote + 6;
    const size_t stop = text.find('\'', start);
    if (stop != std::string::npos && stop < begin)
      rejection.program = text.substr(start, stop - start);
  }
  if (rejection.program.empty()) rejection.program = "?";
  const size_t logStart = text.find('\n', begin);
  size_t logEnd = text.find(kEnd, begin);
  if (logEnd == std::string::npos) logEnd = text.size();
  std::istringstream log(logStart == std::string::npos || logStart > logEnd
                             ? std::string()
                             : text.substr(logStart + 1, logEnd - logStart - 1));
  std::deque<std::string> tail;
  for (std::string line; std::getline(log, line);) {
    if (line.empty()) continue;
    tail.push_back(line);
    if (tail.size() > maxLines) tail.pop_front();
  }
  for (const std::string& line : tail) rejection.log += line + "\n";
  return rejection;
}

std::string lastLine(const std::string& text) {
  size_t end = text.find_last_not_of('\n');
  if (end == std::string::npos) return "";
  const size_t start = text.rfind('\n', end);
  return text.substr(start == std::string::npos ? 0 : start + 1,
                     end - (start == std::string::npos ? 0 : start + 1) + 1);
}

}  // namespace zelk::loader
