// The systemd unit, container and Kubernetes pod that a cgroup's name gives away.
#pragma once

#include <string>
#include <string_view>

namespace zelk::cli {

// What a cgroup's path says about the workload in it, each field empty where it does not apply.
struct CgroupWorkload {
  std::string unit;         // systemd unit, e.g. "nginx.service"
  std::string containerId;  // container runtime's id (hex), e.g. 64 hex digits for Docker
  std::string podUid;       // Kubernetes pod UID in its canonical dashed form
};

// `path` is relative to the cgroup v2 mount, starting with "/" ("/" is the root). A descendant of
// a recognised cgroup belongs to it: each field comes from the deepest component of its kind.
// Conmon's scopes (crio-conmon-<id>, libpod-conmon-<id>) hold the runtime's monitor, not the
// container: they give no container id, only the pod they sit in, whose cgroup pays for them.
CgroupWorkload recogniseWorkload(std::string_view path);

}  // namespace zelk::cli
