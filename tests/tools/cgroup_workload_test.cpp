// Cgroup paths as systemd, Docker, containerd, CRI-O, Podman and the kubelet name them.
#include "model/cgroup_workload.h"

#include <gtest/gtest.h>

#include <string>

namespace zelk::cli {
namespace {

const std::string kId = "4f797c539e6c745de61a93ca3ff892358ecbcaccd8414d5db545c38428142970";
const std::string kUid = "e9fd6274-59d1-11e9-af90-9e3c8464d679";
const std::string kUidSystemd = "e9fd6274_59d1_11e9_af90_9e3c8464d679";

TEST(RecogniseWorkloadTest, EachRuntimesLayoutAndItsNearMisses) {
  const std::string kStaticUid = "8fd1e8ae93e7e1fb0a11b1e4e22a3daf";  // a static pod's md5
  const std::string kBurstable = "/kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod";
  const struct {
    std::string path;
    std::string unit, containerId, podUid;
  } cases[] = {
      {"/", "", "", ""},
      {"", "", "", ""},
      {"/init.scope", "", "", ""},
      {"/user.slice/user-1000.slice/session-3.scope", "", "", ""},
      {"/system.slice/nginx.service", "nginx.service", "", ""},
      {"/system.slice/nginx.service/", "nginx.service", "", ""},
      {"/user.slice/user-1000.slice/user@1000.service/app.slice/foo.service", "foo.service", "",
       ""},
      {"/system.slice/.service", "", "", ""},
      // Docker: systemd and cgroupfs drivers; a sub-cgroup is the container's.
      {"/system.slice/docker-" + kId + ".scope", "", kId, ""},
      {"/system.slice/docker-" + kId + ".scope/sub/deeper", "", kId, ""},
      {"/docker/" + kId, "", kId, ""},
      {"/system.slice/docker.service", "docker.service", "", ""},
      {"/docker/notanid", "", "", ""},
      {"/docker/" + kId.substr(1), "", "", ""},
      {"/system.slice/docker-F" + kId.substr(1) + ".scope", "", "", ""},  // uppercase
      {"/system.slice/docker-" + kId.substr(1) + "g.scope", "", "", ""},
      {"/system.slice/docker-" + kId + "0.scope", "", "", ""},
      {"/elsewhere/" + kId, "", "", ""},  // a bare id only where a driver puts one
      // Kubernetes, systemd driver: burstable, besteffort, guaranteed.
      {kBurstable + kUidSystemd + ".slice/cri-containerd-" + kId + ".scope", "", kId, kUid},
      {"/kubepods.slice/kubepods-besteffort.slice/kubepods-besteffort-pod" + kUidSystemd +
           ".slice/cri-containerd-" + kId + ".scope",
       "", kId, kUid},
      {"/kubepods.slice/kubepods-pod" + kUidSystemd + ".slice/cri-containerd-" + kId + ".scope", "",
       kId, kUid},
      {kBurstable + kStaticUid + ".slice/crio-" + kId + ".scope", "", kId, kStaticUid},
      {kBurstable + kUid + ".slice", "", "", ""},  // dashes are not systemd's
      {kBurstable + "E9FD6274_59D1_11E9_AF90_9E3C8464D679.slice", "", "", ""},
      {kBurstable + kUidSystemd.substr(1) + ".slice", "", "", ""},
      {"/system.slice/foo-pod" + kUidSystemd + ".slice", "", "", ""},  // not the kubelet's
      // Kubernetes, cgroupfs driver.
      {"/kubepods/burstable/pod" + kUid + "/" + kId, "", kId, kUid},
      {"/kubepods/besteffort/pod" + kUid + "/" + kId, "", kId, kUid},
      {"/kubepods/pod" + kUid + "/" + kId, "", kId, kUid},
      {"/kubepods/burstable/pod" + kUid + "/crio-" + kId, "", kId, kUid},
      {"/kubepods/pod" + kUidSystemd + "/" + kId, "", "", ""},
      {"/kubepods/burstable/pod" + kUid + "/sub/" + kId, "", "", kUid},
      // CRI-O, and its conmon: the pod's but not the container's.
      {"/system.slice/crio-" + kId + ".scope", "", kId, ""},
      {kBurstable + kUidSystemd + ".slice/crio-conmon-" + kId + ".scope", "", "", kUid},
      // Podman: systemd root and rootless, its /container sub-cgroup, cgroupfs, conmon.
      {"/machine.slice/libpod-" + kId + ".scope", "", kId, ""},
      {"/machine.slice/libpod-" + kId + ".scope/container", "", kId, ""},
      {"/user.slice/user-1000.slice/user@1000.service/user.slice/libpod-" + kId + ".scope",
       "user@1000.service", kId, ""},
      {"/libpod_parent/libpod-" + kId, "", kId, ""},
      {"/machine.slice/libpod-conmon-" + kId + ".scope", "", "", ""},
      // systemd inside a container: both.
      {"/machine.slice/libpod-" + kId + ".scope/container/system.slice/nginx.service",
       "nginx.service", kId, ""},
  };
  for (const auto& c : cases) {
    const CgroupWorkload w = recogniseWorkload(c.path);
    EXPECT_EQ(w.unit, c.unit) << c.path;
    EXPECT_EQ(w.containerId, c.containerId) << c.path;
    EXPECT_EQ(w.podUid, c.podUid) << c.path;
  }
}

}  // namespace
}  // namespace zelk::cli
