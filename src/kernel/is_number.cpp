#include <string>

#include "zelkcpufreqtime.h"

namespace com {
namespace zelkora {

bool isNumber(const std::string& text) {
  const size_t firstDigit = !text.empty() && text[0] == '-' ? 1 : 0;
  if (firstDigit == text.size()) return false;
  // Compared by value, not with isdigit, so the answer never depends on the locale.
  for (size_t i = firstDigit; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

}  // namespace zelkora
}  // namespace com
