#include <charconv>
#include <cmath>
#include <system_error>

#include "energy/raw_model.h"

namespace com {
namespace zelkora {

std::optional<double> parsePowerNumber(const std::string& text, bool* negative) {
  if (negative != nullptr) *negative = false;
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return std::nullopt;
  const size_t end = text.find_last_not_of(" \t\r\n") + 1;
  std::string token = text.substr(begin, end - begin);
  bool minus = false;
  if (token[0] == '-') {
    minus = true;
    token.erase(0, 1);
  }
  // Plain decimals only: from_chars alone would also take "inf" and "nan".
  const size_t dot = token.find('.');
  const std::string whole = token.substr(0, dot);
  const std::string fraction = dot == std::string::npos ? "" : token.substr(dot + 1);
  const auto digitsOnly = [](const std::string& s) {
    return s.find_first_not_of("0123456789") == std::string::npos;
  };
  if (whole.empty() && fraction.empty()) return std::nullopt;
  if (!digitsOnly(whole) || !digitsOnly(fraction)) return std::nullopt;
  // from_chars, not strtod: a program that embeds the library may set a locale whose decimal
  // separator is a comma, where strtod stops at the dot.
  double value = 0;
  const char* last = token.data() + token.size();
  const auto [stop, error] = std::from_chars(token.data(), last, value, std::chars_format::fixed);
  if (error != std::errc() || stop != last || !std::isfinite(value)) return std::nullopt;
  if (minus && value != 0) {
    if (negative != nullptr) *negative = true;
    return std::nullopt;
  }
  return value;
}

std::string quoted(const std::string& raw) {
  constexpr size_t kShown = 24;
  const size_t begin = raw.find_first_not_of(" \t\r\n");
  const std::string text = begin == std::string::npos
                               ? ""
                               : raw.substr(begin, raw.find_last_not_of(" \t\r\n") + 1 - begin);
  std::string shown;
  for (size_t i = 0; i < text.size() && i < kShown; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    shown += c < 0x20 || c >= 0x7f ? '?' : static_cast<char>(c);  // keeps the message one line
  }
  return "\"" + shown + (text.size() > kShown ? "...\"" : "\"");
}

std::string oneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}

}  // namespace zelkora
}  // namespace com
