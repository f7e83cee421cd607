#include "kernel/background_thread.h"

#include <thread>

#include "kernel/pid_seeding.h"
#include "kernel/pressure_monitor.h"

namespace com {
namespace zelkora {
namespace {

void doInit() {
  doInitMap();
  doPollPsi();
}

}  // namespace

void startInitThread() { std::thread(doInit).detach(); }

}  // namespace zelkora
}  // namespace com
