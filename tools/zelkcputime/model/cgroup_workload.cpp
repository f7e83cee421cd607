#include "model/cgroup_workload.h"

#include <algorithm>
#include <array>

namespace zelk::cli {
namespace {

bool isLowerHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

bool allLowerHex(std::string_view s) { return std::all_of(s.begin(), s.end(), isLowerHex); }

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// Docker, containerd, CRI-O and Podman all name a container by 64 lowercase hex digits.
bool isContainerId(std::string_view s) { return s.size() == 64 && allLowerHex(s); }

// A pod UID as the kubelet writes it into a cgroup name, `sep` between the UUID's groups; dashed,
// or empty when it is none. Static pods have 32 hex digits, an md5 of their manifest, instead.
std::string podUid(std::string_view s, char sep) {
  if (s.size() == 32 && allLowerHex(s)) return std::string(s);
  if (s.size() != 36) return {};
  std::string uid(s);
  for (size_t i = 0; i < uid.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (uid[i] != sep) return {};
      uid[i] = '-';
    } else if (!isLowerHex(uid[i])) {
      return {};
    }
  }
  return uid;
}

// The pod of "kubepods-burstable-pod<uid>.slice" (systemd, '_' for '-') or "pod<uid>"
// (cgroupfs); empty for any other component.
std::string podOf(std::string_view name) {
  if (endsWith(name, ".slice")) {
    name.remove_suffix(6);
    const size_t dash = name.rfind('-');
    if (dash == std::string_view::npos) return {};
    name.remove_prefix(dash + 1);
    return startsWith(name, "pod") ? podUid(name.substr(3), '_') : std::string();
  }
  return startsWith(name, "pod") ? podUid(name.substr(3), '-') : std::string();
}

// The id of "<runtime>-<id>.scope" (systemd) or "<runtime>-<id>" (cgroupfs, as CRI-O and Podman
// name them). Conmon's "crio-conmon-<id>" fails the id's check, as it should.
std::string_view containerOf(std::string_view name) {
  static constexpr std::array<std::string_view, 4> kPrefixes = {"docker-", "cri-containerd-",
                                                                "crio-", "libpod-"};
  if (endsWith(name, ".scope")) name.remove_suffix(6);
  for (std::string_view prefix : kPrefixes) {
    if (startsWith(name, prefix) && isContainerId(name.substr(prefix.size()))) {
      return name.substr(prefix.size());
    }
  }
  return {};
}

}  // namespace

CgroupWorkload recogniseWorkload(std::string_view path) {
  CgroupWorkload workload;
  bool underKubepods = false;  // a pod's cgroup lies below the kubelet's own
  std::string_view parent;
  bool parentIsPod = false;
  while (!path.empty()) {
    const size_t slash = path.find('/');
    const std::string_view name = path.substr(0, slash);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    if (name.empty()) continue;

    if (name.size() > 8 && endsWith(name, ".service")) workload.unit = name;
    std::string_view id = containerOf(name);
    // cgroupfs drivers name a container by its bare id, under /docker or the pod's cgroup.
    if (id.empty() && (parent == "docker" || parentIsPod) && isContainerId(name)) id = name;
    if (!id.empty()) workload.containerId = id;
    std::string pod = underKubepods ? podOf(name) : std::string();
    parentIsPod = !pod.empty();
    if (parentIsPod) workload.podUid = std::move(pod);

    underKubepods = underKubepods || name.find("kubepods") != std::string_view::npos;
    parent = name;
  }
  return workload;
}

}  // namespace zelk::cli
