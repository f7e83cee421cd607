// Compact JSON, written in order: the tool's machine-readable output.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelk::cli {

// `text` as a JSON string literal. Task names are bytes, not always UTF-8: each byte that is not
// part of a valid UTF-8 sequence becomes U+FFFD, so that the output is always valid JSON.
std::string jsonString(const std::string& text);

// Inserts the commas and colons; the caller keeps the nesting balanced.
class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(const std::string& name);
  JsonWriter& value(uint64_t number);
  JsonWriter& value(const std::string& text);
  // Without this, a string literal would pick the bool overload.
  JsonWriter& value(const char* text) { return value(std::string(text)); }
  JsonWriter& value(bool flag);
  JsonWriter& null();
  // An array of numbers, or an array of arrays of numbers.
  JsonWriter& numbers(const std::vector<uint64_t>& list);
  JsonWriter& numbers(const std::vector<std::vector<uint64_t>>& lists);

  const std::string& text() const { return text_; }

 private:
  void beforeValue();

  std::string text_;
  std::vector<bool> empty_;  // per open object or array: nothing written in it yet
  bool afterKey_ = false;
};

}  // namespace zelk::cli
