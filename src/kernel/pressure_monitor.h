// The CPU pressure monitor of the background thread.
#pragma once

namespace com {
namespace zelkora {

// Registers the trigger "some 500000 1000000" (500 ms of CPU stall within 1 s) on
// /proc/pressure/cpu and logs a debug line at every crossing. Returns only when opening, writing
// the trigger or polling fails, or an error event arrives; each of those is logged.
void doPollPsi();

}  // namespace zelkora
}  // namespace com
