// The Prometheus exposition formats, knowing nothing of what is measured: metric families and
// their samples, rendered in the text format 0.0.4 or in OpenMetrics 1.0, the content
// negotiation between the two, and the escaping of label values.
#pragma once

#include <initializer_list>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zelk::cli {

enum class ExpositionFormat { kText, kOpenMetrics };

// The format an Accept header asks for: OpenMetrics 1.0 when it ranks
// application/openmetrics-text (version 1.0.0 or none) above text/plain, else the text format.
ExpositionFormat negotiateFormat(const std::string& accept);
const char* contentType(ExpositionFormat format);

// A label value between quotes: bytes that are not UTF-8 become U+FFFD, and the backslash, the
// quote and the line feed are escaped, as both formats require.
std::string labelValue(const std::string& value);

// {name="value",...}, each value escaped; "" for no labels.
std::string labels(std::initializer_list<std::pair<const char*, std::string>> list);

// Sample values are integers counted in units of 10^-scale, so that they print exactly: sums of
// ns × kHz outgrow 64 bits within a day at a few GHz.
using Units = unsigned __int128;

enum class MetricKind { kCounter, kGauge, kInfo };

// One metric family. Samples keep the order of their first addition; samples with the same
// labels add up, so that label values that become equal (bytes made U+FFFD, a frequency listed
// twice) give one series rather than a duplicate that the scrape would reject.
class Family {
 public:
  // `name` without the _total or _info that the kind adds; `unit` for OpenMetrics, "" for none.
  Family(std::string name, MetricKind kind, std::string unit, std::string help, unsigned scale);

  void add(const std::string& labels, Units units);
  // For an info metric, whose value is always 1: the first setting of `labels` stands.
  void set(const std::string& labels, Units units);
  // Nothing for a family without samples.
  void render(ExpositionFormat format, std::string* out) const;

 private:
  std::string name_;
  MetricKind kind_;
  std::string unit_;
  std::string help_;
  unsigned scale_;
  std::vector<std::pair<std::string, Units>> samples_;
  std::unordered_map<std::string, size_t> index_;
};

}  // namespace zelk::cli
