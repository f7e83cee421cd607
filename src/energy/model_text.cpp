#include "core/decimal.h"
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
  const std::optional<double> parsed = parsePlainDecimal(token);
  if (!parsed) return std::nullopt;
  const double value = *parsed;
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
