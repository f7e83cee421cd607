#include "views/text_table.h"

#include <algorithm>

namespace zelk::cli {
namespace {

void appendCell(std::string& line, const std::string& cell, size_t width, bool right, bool last) {
  const std::string padding(width - cell.size(), ' ');
  if (right) {
    line += padding + cell;
  } else {
    line += cell;
    if (!last) line += padding;
  }
}

}  // namespace

std::string renderTable(const std::vector<Column>& columns,
                        const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(columns.size());
  for (size_t c = 0; c < columns.size(); ++c) widths[c] = columns[c].header.size();
  for (const auto& row : rows) {
    for (size_t c = 0; c < columns.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  std::string text;
  auto appendLine = [&](const auto& cellOf) {
    std::string line;
    for (size_t c = 0; c < columns.size(); ++c) {
      if (c > 0) line += "  ";
      appendCell(line, cellOf(c), widths[c], columns[c].rightAligned, c + 1 == columns.size());
    }
    text += line + "\n";
  };
  appendLine([&](size_t c) -> const std::string& { return columns[c].header; });
  for (const auto& row : rows) appendLine([&](size_t c) -> const std::string& { return row[c]; });
  return text;
}

std::string printableName(const std::string& name) {
  std::string shown = name;
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return shown;
}

}  // namespace zelk::cli
