// Plain decimal numbers, as sysfs, /proc, power models and the tools' options write them: one
// way to read them everywhere.
#pragma once

#include <android-base/parseint.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

namespace com {
namespace zelkora {

// Digits only, at most `max`. libbase's parser alone would also take leading spaces, a sign and
// hex, which these formats never hold.
template <typename T>
bool parseDecimal(const std::string& text, T* value, T max) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
         android::base::ParseUint(text, value, max);
}

// "<digits>[.<digits>]" (either side may be empty, not both) as a double. from_chars, not
// strtod: a program that embeds the library may set a locale whose decimal separator is a
// comma, where strtod stops at the dot. Nothing for anything else, "inf" and "nan" included.
inline std::optional<double> parsePlainDecimal(const std::string& text) {
  const size_t dot = text.find('.');
  if (text.empty() || text == "." || text.find_first_not_of("0123456789.") != std::string::npos ||
      (dot != std::string::npos && text.find('.', dot + 1) != std::string::npos)) {
    return std::nullopt;
  }
  double value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
  if (error != std::errc() || stop != end || !std::isfinite(value)) return std::nullopt;
  return value;
}

// "<digits>[.<digits>]" in units of 10^-fractionDigits, exactly, digits beyond those dropped:
// for values that must not be a unit off, which a double would make of "2.4" GHz in kHz.
inline std::optional<uint64_t> parseFixedPoint(const std::string& text, unsigned fractionDigits) {
  const size_t dot = text.find('.');
  const std::string whole = text.substr(0, dot);
  std::string fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
  uint64_t scale = 1;
  for (unsigned i = 0; i < fractionDigits; ++i) scale *= 10;
  uint64_t wholeValue = 0;
  uint64_t fractionValue = 0;
  if (!parseDecimal(whole, &wholeValue, UINT64_MAX / scale)) return std::nullopt;
  if (dot != std::string::npos) {
    if (fraction.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    fraction.resize(fractionDigits, '0');
    if (fractionDigits > 0 && !parseDecimal(fraction, &fractionValue, scale - 1)) {
      return std::nullopt;
    }
  }
  return wholeValue * scale + fractionValue;
}

}  // namespace zelkora
}  // namespace com
