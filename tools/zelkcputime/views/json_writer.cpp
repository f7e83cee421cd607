#include "views/json_writer.h"

#include <cstdio>

#include "views/utf8.h"

namespace zelk::cli {

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
