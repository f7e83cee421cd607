// Pinned tracepoint programs of the kernel object.
#pragma once

namespace com {
namespace zelkora {

// Opens the program's pin (the catalogue's rule) read-only; negative with errno
// when it is not pinned. The caller owns the descriptor.
int retrieveProgramFd(const char* object, const char* category, const char* event);

// Attaches the pinned program to <category>:<event> for the life of the process. Logs and
// returns false on failure.
bool attachTracepointProgram(const char* object, const char* category, const char* event);

}  // namespace zelkora
}  // namespace com
