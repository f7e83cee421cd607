// load and unload: the loader of the kernel object, as zelk-loader runs it.
#include "commands/commands.h"
#include "machine/environment.h"
#include "object_loader.h"

namespace zelk::cli {
namespace {

int report(const loader::Outcome& outcome) {
  if (!outcome.ok()) return fail(outcome.message);
  printOut(outcome.message + "\n");
  return kExitOk;
}

}  // namespace

int runLoad(const Options& options) {
  if (options.words.size() != 1) return usageError("load takes no argument");
  if (std::string message = checkRoot(); !message.empty()) return fail(message);
  loader::LoadOptions load;
  load.replace = options.replace;
  load.sizes = options.sizes;
  return report(loader::load(load));
}

int runUnload(const Options& options) {
  if (options.words.size() != 1) return usageError("unload takes no argument");
  if (std::string message = checkRoot(); !message.empty()) return fail(message);
  if (std::string message = checkBpffs(); !message.empty()) {
    return fail("nothing to unload: no BPF filesystem on /sys/fs/bpf");
  }
  return report(loader::unload());
}

}  // namespace zelk::cli
