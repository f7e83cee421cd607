// zelk-loader: loads the kernel object zelkCputimeInState and pins it for the library, or
// removes its pins. Prints one line; exits 0 on success, 1 on failure, 2 on a usage error.
#include <cstdio>
#include <cstring>
#include <string>

#include "object_loader.h"

namespace {

int usage() {
  fprintf(
      stderr,
      "usage: zelk-loader [load [--replace] [--names N] [--kthreads N] [--pids N] [--cgroups N]\n"
      "                   | unload]\n"
      "  load          load the object and pin its maps and programs under /sys/fs/bpf "
      "(default)\n"
      "  --replace     replace pins that already exist\n"
      "  --names N     entries of the maps keyed by process name (default from the CPUs)\n"
      "  --kthreads N  entries of the kernel-thread map (default from the CPUs)\n"
      "  --pids N      entries of the maps keyed by pid (default from pid_max)\n"
      "  --cgroups N   entries of the cgroup map (default as --names)\n"
      "  unload        remove the object's pins\n");
  return 2;
}

int usageError(const std::string& message) {
  fprintf(stderr, "zelk-loader: %s\n", message.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool unload = false;
  zelk::loader::LoadOptions options;
  int arg = 1;
  if (arg < argc && strcmp(argv[arg], "load") == 0) {
    ++arg;
  } else if (arg < argc && strcmp(argv[arg], "unload") == 0) {
    unload = true;
    ++arg;
  }
  for (; !unload && arg < argc; ++arg) {
    const std::string option = argv[arg];
    if (option == "--replace") {
      options.replace = true;
      continue;
    }
    uint32_t* entries = nullptr;
    for (const zelk_size_option size :
         {ZELK_SIZE_NAMES, ZELK_SIZE_KTHREADS, ZELK_SIZE_PIDS, ZELK_SIZE_CGROUPS}) {
      if (option == zelk::loader::sizeOption(size)) {
        entries = &(options.sizes.*zelk::loader::sizeMember(size));
      }
    }
    if (entries == nullptr) return usage();
    const std::string error =
        zelk::loader::parseMapSize(option, arg + 1 < argc ? argv[arg + 1] : "", entries);
    if (!error.empty()) return usageError(error);
    ++arg;
  }
  if (arg != argc) return usage();

  const zelk::loader::Outcome outcome =
      unload ? zelk::loader::unload() : zelk::loader::load(options);
  if (!outcome.ok()) {
    fprintf(stderr, "zelk-loader: %s\n", outcome.message.c_str());
    return 1;
  }
  printf("%s\n", outcome.message.c_str());
  return 0;
}
