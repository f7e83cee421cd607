#include "object_loader.h"

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "kernel_memory.h"
#include "libbpf_messages.h"

namespace zelk::loader {
namespace {

constexpr size_t kVerifierLogLines = 25;

Outcome failed(const std::string& message) { return {Status::kFailed, message}; }

std::string withErrno(const std::string& what, int error) { return what + ": " + strerror(error); }

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool bpffsMounted() {
  struct statfs fs;
  return statfs(kBpffsDir, &fs) == 0 && fs.f_type == BPF_FS_MAGIC;
}

std::string mountBpffs() {
  if (bpffsMounted()) return "";
  if (!exists(kBpffsDir)) return std::string(kBpffsDir) + " does not exist: this kernel has no BPF";
  if (mount("bpf", kBpffsDir, "bpf", 0, nullptr) == 0) return "";
  const int error = errno;
  return withErrno(std::string("cannot mount bpffs on ") + kBpffsDir, error) +
         (error == EPERM ? " (needs CAP_SYS_ADMIN)" : "");
}

// A tiny map tells apart a kernel without bpf(2) and a caller without the right to use it.
std::string checkBpfUsable() {
  const int fd = bpf_map_create(BPF_MAP_TYPE_ARRAY, nullptr, 4, 4, 1, nullptr);
  if (fd >= 0) {
    close(fd);
    return "";
  }
  const int error = errno;
  if (error == ENOSYS) return "this kernel has no bpf(2) system call (CONFIG_BPF_SYSCALL is off)";
  if (error == EPERM || error == EACCES) {
    return withErrno("no permission to use bpf(2)", error) +
           " (needs CAP_BPF and CAP_PERFMON, or CAP_SYS_ADMIN)";
  }
  return withErrno("bpf(2) cannot create a map", error);
}

// The object is relocated against the running kernel's types (CO-RE), so it needs them.
std::string checkKernelBtf() {
  btf* types = btf__load_vmlinux_btf();
  if (types != nullptr) {
    btf__free(types);
    return "";
  }
  return withErrno("this kernel exposes no BTF type information (/sys/kernel/btf/vmlinux)", errno) +
         "; it needs CONFIG_DEBUG_INFO_BTF";
}

std::string loadFailure(int error, const std::string& messages) {
  const VerifierRejection rejection = findVerifierRejection(messages, kVerifierLogLines);
  if (!rejection.program.empty()) {
    return "the kernel's verifier rejected program " + rejection.program + " (" + strerror(error) +
           "); the end of its log:\n" + rejection.log;
  }
  std::string message = withErrno("loading zelkCputimeInState failed", error);
  const std::string detail = lastLine(messages);
  if (!detail.empty()) message += " (" + detail + ")";
  if (error == EPERM) message += "; needs CAP_BPF and CAP_PERFMON, or CAP_SYS_ADMIN";
  return message;
}

// libbpf names the map it could not create: "map 'name': failed to create: ...".
std::string mapCreationFailure(int error, const std::string& messages, const MapSizes& sizes) {
  for (const SizedMap& sized : kSizedMaps) {
    if (messages.find(std::string("map '") + sized.name + "': failed to create") ==
        std::string::npos) {
      continue;
    }
    return withErrno("the kernel refused " + std::string(sized.name) + " with " +
                         std::to_string(sizes.*sized.entries) + " entries (" + sized.option + ")",
                     error) +
           (error == ENOMEM ? "; a smaller " + std::string(sized.option) + " may fit" : "");
  }
  return "";
}

struct ObjectCloser {
  void operator()(bpf_object* object) const { bpf_object__close(object); }
};
using ObjectPtr = std::unique_ptr<bpf_object, ObjectCloser>;

std::string setSizes(bpf_object* object, const MapSizes& sizes) {
  for (const SizedMap& sized : kSizedMaps) {
    // Another object (a test's) may lack the map.
    bpf_map* map = bpf_object__find_map_by_name(object, sized.name);
    if (map != nullptr && bpf_map__set_max_entries(map, sizes.*sized.entries) != 0) {
      return withErrno(std::string("cannot size ") + sized.name, errno);
    }
  }
  return "";
}

std::string memoryOf(bpf_object* object, uint64_t* total) {
  std::vector<MapMemory> maps;
  bpf_map* map;
  bpf_object__for_each_map(map, object) {
    maps.push_back({bpf_map__name(map), memlockBytes(bpf_map__fd(map))});
    *total += maps.back().bytes;
  }
  uint64_t programBytes = 0;
  bpf_program* program;
  bpf_object__for_each_program(program, object) {
    programBytes += memlockBytes(bpf_program__fd(program));
  }
  *total += programBytes;
  return describeKernelMemory(std::move(maps), programBytes);
}

std::string writeClearTime(bpf_object* object) {
  const char* name = com::zelkora::mapInfo(com::zelkora::MapId::ClearTime).name;
  bpf_map* map = bpf_object__find_map_by_name(object, name);
  if (map == nullptr) return std::string("the object has no ") + name;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint32_t key = 0;
  const uint64_t value = static_cast<uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec;
  if (bpf_map_update_elem(bpf_map__fd(map), &key, &value, BPF_ANY) != 0) {
    return withErrno(std::string("cannot write the load time into ") + name, errno);
  }
  return "";
}

void removePins(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) unlink(path.c_str());
}

// Pins everything, or, when one pin fails, removes what this call pinned.
std::string pinAll(bpf_object* object) {
  std::vector<std::string> pinned;
  bpf_map* map;
  bpf_object__for_each_map(map, object) {
    const std::string path = mapPinPath(bpf_map__name(map));
    if (bpf_obj_pin(bpf_map__fd(map), path.c_str()) != 0) {
      const int error = errno;
      removePins(pinned);
      return withErrno("cannot pin " + path, error);
    }
    pinned.push_back(path);
  }
  bpf_program* program;
  bpf_object__for_each_program(program, object) {
    const std::string path =
        programPin(bpf_program__section_name(program), bpf_program__name(program)).path;
    if (bpf_obj_pin(bpf_program__fd(program), path.c_str()) != 0) {
      const int error = errno;
      removePins(pinned);
      return withErrno("cannot pin " + path, error);
    }
    pinned.push_back(path);
  }
  return "";
}

std::vector<std::string> allPaths(const PinList& pins) {
  std::vector<std::string> paths = pins.maps;
  for (const ProgramPin& program : pins.programs) paths.push_back(program.path);
  return paths;
}

}  // namespace

Outcome load(const LoadOptions& options) {
  // libbpf would otherwise print its own lines; what matters goes into the one message.
  LibbpfMessages messages;
  const PinList pins = objectPins(options.object);
  if (!pins.error.empty()) return failed(pins.error);
  const std::string mountError = mountBpffs();
  if (!mountError.empty()) return failed(mountError);

  const std::vector<std::string> paths = allPaths(pins);
  size_t present = 0;
  for (const std::string& path : paths) present += exists(path);
  if (present > 0 && !options.replace) {
    if (present == paths.size()) {
      return {Status::kAlreadyLoaded, "zelkCputimeInState is already loaded (" +
                                          std::to_string(present) + " pins under " + kBpffsDir +
                                          "); nothing changed, --replace reloads it"};
    }
    return failed("zelkCputimeInState is partly loaded (" + std::to_string(present) + " of " +
                  std::to_string(paths.size()) + " pins under " + kBpffsDir +
                  "); nothing changed, --replace reloads it");
  }

  MapSizes sizes = options.sizes;
  std::string error = fillDefaultSizes(&sizes);
  if (error.empty()) error = checkBpfUsable();
  if (error.empty()) error = checkKernelBtf();
  if (!error.empty()) return failed(error);

  LIBBPF_OPTS(bpf_object_open_opts, openOptions, .object_name = kObjectName);
  ObjectPtr object(bpf_object__open_mem(options.object.data, options.object.size, &openOptions));
  if (!object) return failed(withErrno("cannot read the BPF object", errno));
  error = setSizes(object.get(), sizes);
  if (!error.empty()) return failed(error);
  if (const int result = bpf_object__load(object.get()); result != 0) {
    error = mapCreationFailure(-result, messages.text(), sizes);
    return failed(error.empty() ? loadFailure(-result, messages.text()) : error);
  }
  error = writeClearTime(object.get());
  if (!error.empty()) return failed(error);
  // Only pinning is left to fail: everything before it leaves the old pins in place.
  if (options.replace) removePins(paths);
  error = pinAll(object.get());
  if (!error.empty()) return failed(error);
  Outcome outcome{Status::kLoaded, ""};
  const std::string memory = memoryOf(object.get(), &outcome.kernelBytes);
  outcome.message = "loaded zelkCputimeInState (" + describeSizes(sizes) + "): pinned " +
                    std::to_string(pins.maps.size()) + " maps and " +
                    std::to_string(pins.programs.size()) + " programs under " + kBpffsDir + "; " +
                    memory;
  return outcome;
}

Outcome unload(ObjectBytes object) {
  LibbpfMessages messages;
  const PinList pins = objectPins(object);
  if (!pins.error.empty()) return failed(pins.error);
  size_t removed = 0;
  for (const std::string& path : allPaths(pins)) {
    if (unlink(path.c_str()) == 0) {
      ++removed;
    } else if (errno != ENOENT) {
      return failed(withErrno("cannot remove " + path, errno));
    }
  }
  if (removed == 0) {
    return {
        Status::kNotLoaded,
        std::string("zelkCputimeInState is not loaded: none of its pins is under ") + kBpffsDir};
  }
  return {Status::kUnloaded, "unloaded zelkCputimeInState: removed " + std::to_string(removed) +
                                 " pins from " + kBpffsDir};
}

}  // namespace zelk::loader
