// zelk-loader: loads the kernel object zelkCputimeInState and pins it for the library, or
// removes its pins. Prints one line; exits 0 on success, 1 on failure, 2 on a usage error.
#include <cstdio>
#include <cstring>

#include "object_loader.h"

namespace {

int usage() {
  fprintf(stderr,
          "usage: zelk-loader [load [--replace] | unload]\n"
          "  load       load the object and pin its maps and programs under /sys/fs/bpf (default)\n"
          "  --replace  replace pins that already exist\n"
          "  unload     remove the object's pins\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool unload = false;
  bool replace = false;
  int arg = 1;
  if (arg < argc && strcmp(argv[arg], "load") == 0) {
    ++arg;
  } else if (arg < argc && strcmp(argv[arg], "unload") == 0) {
    unload = true;
    ++arg;
  }
  if (!unload && arg < argc && strcmp(argv[arg], "--replace") == 0) {
    replace = true;
    ++arg;
  }
  if (arg != argc) return usage();

  zelk::loader::LoadOptions options;
  options.replace = replace;
  const zelk::loader::Outcome outcome =
      unload ? zelk::loader::unload() : zelk::loader::load(options);
  if (!outcome.ok()) {
    fprintf(stderr, "zelk-loader: %s\n", outcome.message.c_str());
    return 1;
  }
  printf("%s\n", outcome.message.c_str());
  return 0;
}
