// CSV as RFC 4180 writes it: comma-separated, CRLF-free, fields quoted only when they must be.
#pragma once

#include <string>
#include <vector>

namespace zelk::cli {

// The field, in double quotes with inner quotes doubled when it holds a comma, a quote, a
// carriage return, a newline, or leading or trailing blanks; else as it is. Bytes are kept.
std::string csvField(const std::string& text);

// The fields joined by commas, with a newline.
std::string csvRow(const std::vector<std::string>& fields);

}  // namespace zelk::cli
