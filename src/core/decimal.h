// Plain decimal numbers, as sysfs and the tools' options write them.
#pragma once

#include <android-base/parseint.h>

#include <string>

namespace com {
namespace zelkora {

// Digits only, at most `max`. libbase's parser alone would also take leading spaces, a sign and
// hex, which these formats never hold.
template <typename T>
bool parseDecimal(const std::string& text, T* value, T max) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
         android::base::ParseUint(text, value, max);
}

}  // namespace zelkora
}  // namespace com
