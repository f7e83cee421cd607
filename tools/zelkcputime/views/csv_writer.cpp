#include "views/csv_writer.h"

namespace zelk::cli {
namespace {

// The field, in double quotes with inner quotes doubled when it holds a comma, a quote, a
// carriage return, a newline, or leading or trailing blanks; else as it is. Bytes are kept.
std::string csvField(const std::string& text) {
  const bool quoted = text.find_first_of(",\"\r\n") != std::string::npos ||
                      (!text.empty() && (text.front() == ' ' || text.back() == ' ' ||
                                         text.front() == '\t' || text.back() == '\t'));
  if (!quoted) return text;
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

}  // namespace

std::string csvRow(const std::vector<std::string>& fields) {
  std::string row;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) row += ',';
    row += csvField(fields[i]);
  }
  return row + "\n";
}

}  // namespace zelk::cli
