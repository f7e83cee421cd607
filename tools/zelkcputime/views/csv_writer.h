// CSV as RFC 4180 writes it: comma-separated, CRLF-free, fields quoted only when they must be.
#pragma once

#include <string>
#include <vector>

namespace zelk::cli {

// The fields joined by commas, with a newline.
std::string csvRow(const std::vector<std::string>& fields);

}  // namespace zelk::cli
