// status: what the machine has, what the library says, and whether tracking runs anywhere.
#include <optional>

#include "commands/commands.h"
#include "machine/attached_programs.h"
#include "machine/environment.h"
#include "model/fill.h"
#include "views/fill_warnings.h"
#include "views/json_writer.h"
#include "views/text_views.h"
#include "views/units.h"
#include "zelkcpufreqtime.h"
#include "zelkcpufreqtime_policies.h"

namespace zelk::cli {
namespace {

struct Status {
  bool root;
  bool bpffs;
  size_t pinsExpected = 0;
  std::vector<std::string> pinsMissing;
  std::vector<PolicyDir> policies;
  bool asked = false;  // the library is asked only when the checks pass
  std::optional<FreqTable> freqs;
  bool supported = false;
  std::vector<pid_t> trackingPids;
  std::optional<Fill> fill;  // read when the library could be asked
  std::string problem;       // the first failed check, or the library's failure
};

// related_cpus as the kernel writes it: "0 1 2 3".
std::vector<PolicyDir> policyDirs(const std::vector<com::zelkora::CpuFreqPolicy>& policies) {
  std::vector<PolicyDir> dirs;
  for (const com::zelkora::CpuFreqPolicy& policy : policies) {
    std::string cpus;
    for (const uint64_t cpu : policy.cpus) cpus += (cpus.empty() ? "" : " ") + std::to_string(cpu);
    dirs.push_back({policy.name, cpus});
  }
  return dirs;
}

Status gather() {
  Status s;
  s.root = checkRoot().empty();
  s.bpffs = checkBpffs().empty();
  // Until the library can be asked (no root, no pins), the machine's directory is all there is.
  s.policies = cpufreqPolicies();
  s.pinsMissing = missingPins(&s.pinsExpected);
  s.problem = checkReady();
  if (!s.problem.empty()) return s;
  s.asked = true;
  s.freqs = com::zelkora::getCpuFreqs();
  // Then the policies that its numbers are of, as it discovered them.
  if (const auto policies = com::zelkora::getCpuFreqPolicies()) s.policies = policyDirs(*policies);
  s.supported = com::zelkora::isTrackingCpuFreqTimeSupported();
  if (!s.freqs || !s.supported) {
    s.problem = "the library cannot use the kernel object (run with -v for its messages)";
  }
  s.trackingPids = pidsTracking();
  if (s.problem.empty()) s.fill = readFill();
  return s;
}

std::string statusText(const Status& s) {
  const auto line = [](const std::string& label, const std::string& value) {
    return label + std::string(13 - label.size(), ' ') + value + "\n";
  };
  std::string text = line("root:", s.root ? "yes" : "no");
  text += line("bpffs:", s.bpffs ? "mounted on /sys/fs/bpf" : "not mounted on /sys/fs/bpf");
  text += line("pins:", std::to_string(s.pinsExpected - s.pinsMissing.size()) + " of " +
                            std::to_string(s.pinsExpected) + " present");
  std::string policies = std::to_string(s.policies.size());
  for (const PolicyDir& policy : s.policies) {
    policies += ", " + policy.name + " (CPUs " + policy.relatedCpus + ")";
  }
  text += line("policies:", policies);
  text += line("supported:", !s.asked ? "not asked" : s.supported ? "yes" : "no");
  if (s.freqs) {
    const std::string freqs = textFreqs(*s.freqs);
    for (size_t start = 0; start < freqs.size();) {
      const size_t end = freqs.find('\n', start);
      text += line(start == 0 ? "frequencies:" : "", freqs.substr(start, end - start));
      start = end + 1;
    }
  }
  std::string tracking = "not running (`zelkcputime start` runs it)";
  if (!s.trackingPids.empty()) {
    tracking = "running in process";
    for (pid_t pid : s.trackingPids) tracking += " " + std::to_string(pid);
  }
  if (s.problem.empty()) text += line("tracking:", tracking);
  if (s.fill) {
    bool first = true;
    for (const MapFill& map : s.fill->maps) {
      std::string value = map.name + " " + std::to_string(map.entries) + " of " +
                          std::to_string(map.capacity) + " (" +
                          formatPercent(map.entries, map.capacity) + "%)";
      if (map.overflowNs) value += ", overflow " + formatSeconds(*map.overflowNs) + " s";
      text += line(first ? "maps:" : "", value);
      first = false;
    }
    if (const auto& counts = s.fill->counts) {
      text +=
          line("overflow:", std::to_string(counts->untrackedProcesses) + " processes untracked, " +
                                std::to_string(counts->overflowedUpdates) +
                                " updates to overflow entries, " +
                                std::to_string(counts->lostUpdates) + " lost");
    } else {
      text += line("overflow:", "not counted by this kernel object");
    }
    for (const std::string& warning : fillWarnings(*s.fill)) text += "warning: " + warning + "\n";
  }
  return text;
}

std::string statusJson(const Status& s) {
  JsonWriter json;
  json.beginObject().key("root").value(s.root).key("bpffs").value(s.bpffs);
  json.key("pins").beginObject().key("expected").value(static_cast<uint64_t>(s.pinsExpected));
  json.key("missing").beginArray();
  for (const std::string& pin : s.pinsMissing) json.value(pin);
  json.endArray().endObject();
  json.key("policies").beginArray();
  for (const PolicyDir& policy : s.policies) {
    json.beginObject().key("name").value(policy.name).key("related_cpus").value(policy.relatedCpus);
    json.endObject();
  }
  json.endArray().key("freqs_khz");
  s.freqs ? json.numbers(*s.freqs) : json.null();
  json.key("supported").value(s.supported).key("tracking_pids").beginArray();
  for (pid_t pid : s.trackingPids) json.value(static_cast<uint64_t>(pid));
  json.endArray().key("maps").beginArray();
  if (s.fill) {
    for (const MapFill& map : s.fill->maps) {
      json.beginObject().key("name").value(map.name).key("entries").value(map.entries);
      json.key("capacity").value(map.capacity).key("overflow_ns");
      map.overflowNs ? json.value(*map.overflowNs) : json.null();
      json.endObject();
    }
  }
  json.endArray().key("overflow");
  if (s.fill && s.fill->counts) {
    json.beginObject().key("untracked_processes").value(s.fill->counts->untrackedProcesses);
    json.key("overflowed_updates").value(s.fill->counts->overflowedUpdates);
    json.key("lost_updates").value(s.fill->counts->lostUpdates).endObject();
  } else {
    json.null();
  }
  json.key("warnings").beginArray();
  if (s.fill) {
    for (const std::string& warning : fillWarnings(*s.fill)) json.value(warning);
  }
  json.endArray().key("problem").value(s.problem).endObject();
  return json.text() + "\n";
}

}  // namespace

int runStatus(const Options& options) {
  if (options.words.size() != 1) return usageError("status takes no argument");
  if (options.format == Format::kCsv) return usageError("status has no CSV form; use --json");
  const Status s = gather();
  printOut(options.format == Format::kJson ? statusJson(s) : statusText(s));
  if (!s.problem.empty()) return fail(s.problem);
  return kExitOk;
}

}  // namespace zelk::cli
