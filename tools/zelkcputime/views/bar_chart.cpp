#include "views/bar_chart.h"

#include "views/text_table.h"
#include "views/units.h"

namespace zelk::cli {

std::string residencyChart(const FreqTable& freqs, const Times& times, size_t width) {
  // One table for every policy, so that the columns line up across policies.
  std::vector<std::string> headings;
  std::vector<size_t> firstRow;
  std::vector<std::vector<std::string>> rows;
  for (size_t p = 0; p < freqs.size() && p < times.size(); ++p) {
    const uint64_t policyTotal = policyTime(times, p);
    headings.push_back("policy " + std::to_string(p) + ": " + formatSeconds(policyTotal) + " s\n");
    firstRow.push_back(rows.size());
    for (size_t f = 0; f < freqs[p].size() && f < times[p].size(); ++f) {
      const uint64_t ns = times[p][f];
      // Rounded to the nearest character, in integers, so that 100% is exactly `width`.
      const size_t bar =
          policyTotal == 0
              ? 0
              : static_cast<size_t>((static_cast<unsigned __int128>(ns) * width * 2 + policyTotal) /
                                    (2 * static_cast<unsigned __int128>(policyTotal)));
      rows.push_back({formatMhz(freqs[p][f]) + " MHz",
                      std::string(bar, '#') + std::string(width - bar, '.'),
                      formatSeconds(ns) + " s", formatPercent(ns, policyTotal) + "%"});
    }
  }
  const std::string table = renderTable({{"", true}, {"", false}, {"", true}, {"", true}}, rows);
  std::string text;
  size_t policy = 0;
  size_t row = 0;
  // The first line is the empty header; each row is indented under its policy's heading.
  for (size_t start = table.find('\n') + 1; start < table.size(); ++row) {
    while (policy < headings.size() && firstRow[policy] == row) text += headings[policy++];
    const size_t end = table.find('\n', start);
    text += "  " + table.substr(start, end - start + 1);
    start = end + 1;
  }
  while (policy < headings.size()) text += headings[policy++];  // policies without frequencies
  return text;
}

}  // namespace zelk::cli
