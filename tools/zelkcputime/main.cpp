// zelkcputime: looks at CPU time per frequency through libzelkcpufreqtime.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "zelkcpufreqtime.h"

namespace {

constexpr const char kCpufreqDir[] = "/sys/devices/system/cpu/cpufreq";
constexpr const char kFirstMapPin[] =
    "/sys/fs/bpf/map_zelkCputimeInState_process_time_in_state_map";

int countPolicies() {
  DIR* dir = opendir(kCpufreqDir);
  if (dir == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(dir)) {
    if (strncmp(entry->d_name, "policy", 6) == 0) ++count;
  }
  closedir(dir);
  return count;
}

// Says why the library could not initialise, from what the machine lacks.
void explainInitFailure() {
  const int policies = countPolicies();
  if (policies <= 0) {
    fprintf(stderr,
            "zelkcputime: no cpufreq policies in %s: this machine has no cpufreq driver "
            "(usual in virtual machines), so there are no frequencies to account for.\n",
            kCpufreqDir);
    return;
  }
  struct stat st;
  if (stat(kFirstMapPin, &st) != 0) {
    fprintf(stderr,
            "zelkcputime: %d cpufreq policies found, but the kernel object's maps are not pinned "
            "under /sys/fs/bpf: load the kernel object first.\n",
            policies);
    return;
  }
  fprintf(stderr, "zelkcputime: the library could not initialise; see the log for details.\n");
}

int showFreqs() {
  const auto table = com::zelkora::getCpuFreqs();
  if (!table) {
    explainInitFailure();
    return 1;
  }
  for (size_t p = 0; p < table->size(); ++p) {
    printf("policy %zu:", p);
    for (uint64_t khz : (*table)[p]) printf(" %llu", static_cast<unsigned long long>(khz / 1000));
    printf(" MHz\n");
  }
  return 0;
}

void usage() { fprintf(stderr, "usage: zelkcputime freqs\n"); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage();
    return 2;
  }
  const std::string command = argv[1];
  if (command == "freqs") return showFreqs();
  usage();
  return 2;
}
