#include "views/unsettled_note.h"

#include <cstring>

namespace zelk::cli {

std::string unsettledNote(int error) {
  return std::string("zelkcputime: note: cannot settle the CPUs before reading (") +
         strerror(error) +
         "; it needs Linux 5.10 or later and an object loaded with its settle program), so the "
         "counts lag by what each CPU's running task has run since it was switched in";
}

}  // namespace zelk::cli
