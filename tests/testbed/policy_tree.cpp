#include "policy_tree.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "maps.h"

namespace zelk::testbed {
namespace {

void makeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
}

}  // namespace

std::string kernelList(const std::vector<uint64_t>& numbers) {
  std::string text;
  for (uint64_t n : numbers) text += std::to_string(n) + " ";
  return text + "\n";
}

void writeCpufreqFile(const std::string& relPath, const std::string& content) {
  const std::string path = std::string(kCpufreqDir) + "/" + relPath;
  makeDirs(path);
  if (!android::base::WriteStringToFile(content, path)) {
    ADD_FAILURE() << "cannot write " << path << ": " << strerror(errno);
  }
}

void addPolicy(const std::string& name, const std::vector<uint64_t>& freqs,
               const std::vector<uint64_t>& cpus) {
  writeCpufreqFile(name + "/scaling_available_frequencies", kernelList(freqs));
  writeCpufreqFile(name + "/related_cpus", kernelList(cpus));
  if (!freqs.empty()) {
    writeCpufreqFile(name + "/scaling_cur_freq", std::to_string(freqs.front()) + "\n");
  }
}

std::vector<std::vector<uint64_t>> addPhoneTree() {
  const std::vector<uint64_t> little = {300000,  403200,  499200,  576000,  672000,  768000,
                                        844800,  940800,  1036800, 1113600, 1209600, 1305600,
                                        1382400, 1478400, 1555200, 1632000, 1708800, 1785600};
  const std::vector<uint64_t> big = {710400,  825600,  940800,  1056000, 1171200, 1286400,
                                     1401600, 1497600, 1612800, 1708800, 1804800, 1920000,
                                     2016000, 2131200, 2227200, 2323200, 2419200};
  const std::vector<uint64_t> prime = {
      844800,  960000,  1075200, 1190400, 1305600, 1420800, 1555200, 1670400, 1785600, 1900800,
      2035200, 2150400, 2265600, 2380800, 2496000, 2592000, 2688000, 2764800, 2841600};
  addPolicy("policy0", little, {0, 1, 2, 3});
  addPolicy("policy4", big, {4, 5, 6});
  // The prime core's top frequency is a boost frequency.
  addPolicy("policy7", std::vector<uint64_t>(prime.begin(), prime.end() - 1), {7});
  writeCpufreqFile("policy7/scaling_boost_frequencies", kernelList({prime.back()}));
  // What a real cpufreq directory holds besides its policies.
  writeCpufreqFile("boost", "0\n");
  writeCpufreqFile("schedutil/rate_limit_us", "500\n");
  writeCpufreqFile("ondemand/sampling_rate", "10000\n");
  return {little, big, prime};
}

std::vector<uint64_t> addMachinePolicy(const std::vector<uint64_t>& freqs) {
  std::vector<uint64_t> cpus;
  for (uint32_t cpu = 0; cpu < possibleCpus(); ++cpu) cpus.push_back(cpu);
  addPolicy("policy0", freqs, cpus);
  return cpus;
}

}  // namespace zelk::testbed
