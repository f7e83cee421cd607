#include "programs.h"

#include <android-base/unique_fd.h>
#include <bcc/libbpf.h>
#include <bpf/bpf.h>
#include <linux/bpf.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "core/catalogue.h"

namespace zelk::testbed {

const std::vector<TracepointName>& objectTracepoints() {
  static const std::vector<TracepointName> tracepoints = [] {
    std::vector<TracepointName> all;
    for (const com::zelkora::ProgramInfo& program : com::zelkora::kPrograms) {
      all.push_back({program.category, program.event});
    }
    return all;
  }();
  return tracepoints;
}

std::string programPinPath(const TracepointName& tp) {
  char path[PATH_MAX];
  snprintf(path, sizeof(path), com::zelkora::kProgramPinFormat, com::zelkora::kObjectName,
           tp.category.c_str(), tp.event.c_str());
  return path;
}

int loadTrivialProgram(const char* name) {
  struct bpf_insn insns[2];
  memset(insns, 0, sizeof(insns));
  insns[0].code = BPF_ALU64 | BPF_MOV | BPF_K;  // r0 = 0
  insns[1].code = BPF_JMP | BPF_EXIT;
  return bpf_prog_load(BPF_PROG_TYPE_TRACEPOINT, name, "GPL", insns, 2, nullptr);
}

std::string pinProgram(const TracepointName& tp) {
  const android::base::unique_fd program(loadTrivialProgram(tp.event.c_str()));
  if (program.get() < 0) return "loading a program for " + tp.event + ": " + strerror(errno);
  // The pin keeps the program alive after this descriptor is closed.
  if (bpf_obj_pin(program.get(), programPinPath(tp).c_str()) != 0) {
    return "pinning " + programPinPath(tp) + ": " + strerror(errno);
  }
  return "";
}

std::string pinPrograms() {
  for (const TracepointName& tp : objectTracepoints()) {
    std::string error = pinProgram(tp);
    if (!error.empty()) return error;
  }
  return "";
}

void unpinProgram(const TracepointName& tp) { unlink(programPinPath(tp).c_str()); }

bool attachPinnedProgram(const TracepointName& tp) {
  const int program = bpf_obj_get(programPinPath(tp).c_str());
  if (program < 0) return false;
  // Kept open on success, like the library does: the attachment holds the program.
  if (bpf_attach_tracepoint(program, tp.category.c_str(), tp.event.c_str()) >= 0) return true;
  close(program);
  return false;
}

}  // namespace zelk::testbed
