#include "bar_chart.h"

#include <numeric>

#include "text_table.h"
#include "units.h"

namespace zelk::cli {

std::string residencyChart(const FreqTable& freqs, const Times& times, size_t width) {
  std::string text;
  for (size_t p = 0; p < freqs.size() && p < times.size(); ++p) {
    const uint64_t policyTotal = std::accumulate(times[p].begin(), times[p].end(), uint64_t{0});
    text += "policy " + std::to_string(p) + ": " + formatSeconds(policyTotal) + " s\n";
    std::vector<std::vector<std::string>> rows;
    for (size_t f = 0; f < freqs[p].size() && f < times[p].size(); ++f) {
      const uint64_t ns = times[p][f];
      // Rounded to the nearest character, computed in integers so that 100% is exactly `width`.
      const size_t bar =
          policyTotal == 0
              ? 0
              : static_cast<size_t>((static_cast<unsigned __int128>(ns) * width * 2 + policyTotal) /
                                    (2 * static_cast<unsigned __int128>(policyTotal)));
      rows.push_back({formatMhz(freqs[p][f]) + " MHz",
                      std::string(bar, '#') + std::string(width - bar, '.'),
                      formatSeconds(ns) + " s", formatPercent(ns, policyTotal) + "%"});
    }
    const std::string table = renderTable({{"", true}, {"", false}, {"", true}, {"", true}}, rows);
    // Drop the empty header line and indent the rows under their policy.
    for (size_t start = table.find('\n') + 1; start < table.size();) {
      const size_t end = table.find('\n', start);
      text += "  " + table.substr(start, end - start + 1);
      start = end + 1;
    }
  }
  return text;
}

}  // namespace zelk::cli
