#include "views/utf8.h"

namespace zelk::cli {

size_t utf8Length(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  size_t length;
  unsigned char low = 0x80, high = 0xbf;  // allowed range of the second byte
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;
    if (lead == 0xed) high = 0x9f;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k) {
    if ((byte(i + k) & 0xc0) != 0x80) return 0;
  }
  return length;
}

std::string validUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8Length(text, i);
    if (length == 0) {
      out += "\xef\xbf\xbd";  // U+FFFD
      ++i;
    } else {
      out.append(text, i, length);
      i += length;
    }
  }
  return out;
}

}  // namespace zelk::cli
