#include "kernel/tracepoint_program.h"

#include <android-base/stringprintf.h>
#include <bcc/libbpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/catalogue.h"
#include "core/log.h"
#include "syscall/bpf_syscall.h"

namespace com {
namespace zelkora {

int retrieveProgramFd(const char* object, const char* category, const char* event) {
  const std::string path = android::base::StringPrintf(kProgramPinFormat, object, category, event);
  return bpfObjGet(path.c_str(), BPF_F_RDONLY);
}

bool attachTracepointProgram(const char* object, const char* category, const char* event) {
  errno = 0;
  const int programFd = retrieveProgramFd(object, category, event);
  if (programFd < 0) {
    ZELK_LOGE("Failed to retrieve program %s, %s", event, strerror(errno));
    return false;
  }
  errno = 0;
  // Neither descriptor is closed: the attachment lives as long as the process.
  if (bpf_attach_tracepoint(programFd, category, event) >= 0) return true;
  ZELK_LOGE("Failed to attach program %s, %s", event, strerror(errno));
  close(programFd);  // nothing holds the program now; a failing retry loop must not leak
  return false;
}

}  // namespace zelkora
}  // namespace com
