// Plain-text tables for people: a header row and aligned columns.
#pragma once

#include <string>
#include <vector>

namespace zelk::cli {

struct Column {
  std::string header;
  bool rightAligned;  // numbers line up on their last digit
};

// Columns are separated by two spaces; the last column is not padded on the right. Every row
// has one cell per column.
std::string renderTable(const std::vector<Column>& columns,
                        const std::vector<std::vector<std::string>>& rows);

// A task name as a terminal can show it: bytes below 0x20 and 0x7f become '?', so that a name
// cannot break the layout.
std::string printableName(const std::string& name);

}  // namespace zelk::cli
