// libbpf's messages, captured while the object loads, so a failure can say why.
#pragma once

#include <string>

namespace zelk::loader {

// Collects libbpf's warnings and the verifier logs it prints, instead of writing them to
// stderr; restores the previous printer when destroyed. One at a time per process.
class LibbpfMessages {
 public:
  LibbpfMessages();
  ~LibbpfMessages();
  LibbpfMessages(const LibbpfMessages&) = delete;
  LibbpfMessages& operator=(const LibbpfMessages&) = delete;

  const std::string& text() const;
};

struct VerifierRejection {
  std::string program;  // "" when `text` holds no verifier log
  std::string log;      // the end of the log, where the verifier says what it refused
};

// Finds the verifier log that libbpf prints when a program fails to load; keeps its last
// `maxLines` lines.
VerifierRejection findVerifierRejection(const std::string& text, size_t maxLines);

// The last non-empty line of `text`, without its newline.
std::string lastLine(const std::string& text);

}  // namespace zelk::loader
