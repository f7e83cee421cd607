#include "json_writer.h"

#include <cstdio>

namespace zelk::cli {
namespace {

// Length of the valid UTF-8 sequence at `i`, or 0 (overlong forms, surrogates and values above
// U+10FFFF are invalid).
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

}  // namespace

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const size_t length = utf8Length(text, i);
    if (length == 0) {
      out += "\xef\xbf\xbd";  // U+FFFD
      ++i;
      continue;
    }
    if (length > 1) {
      out.append(text, i, length);
    } else if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
    i += length;
  }
  return out + "\"";
}

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!empty_.empty()) {
    if (!empty_.back()) text_ += ',';
    empty_.back() = false;
  }
}

JsonWriter& JsonWriter::beginObject() {
  beforeValue();
  text_ += '{';
  empty_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  text_ += '}';
  empty_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  beforeValue();
  text_ += '[';
  empty_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  text_ += ']';
  empty_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::key(const std::string& name) {
  beforeValue();
  text_ += jsonString(name) + ':';
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(uint64_t number) {
  beforeValue();
  text_ += std::to_string(number);
  return *this;
}

JsonWriter& JsonWriter::value(const std::string& text) {
  beforeValue();
  text_ += jsonString(text);
  return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
  beforeValue();
  text_ += flag ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  beforeValue();
  text_ += "null";
  return *this;
}

JsonWriter& JsonWriter::numbers(const std::vector<uint64_t>& list) {
  beginArray();
  for (uint64_t number : list) value(number);
  return endArray();
}

JsonWriter& JsonWriter::numbers(const std::vector<std::vector<uint64_t>>& lists) {
  beginArray();
  for (const auto& list : lists) numbers(list);
  return endArray();
}

}  // namespace zelk::cli
