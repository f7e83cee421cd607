// The library's background thread: it seeds the pid maps from /proc, then watches CPU pressure
// for the rest of the process's life.
#pragma once

namespace com {
namespace zelkora {

// Starts a detached thread. Throws std::system_error when no thread can be created.
void startInitThread();

}  // namespace zelkora
}  // namespace com
