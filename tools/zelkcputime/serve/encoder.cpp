#include "serve/encoder.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <system_error>

#include "views/utf8.h"

namespace zelk::cli {
namespace {

std::string trim(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

struct MediaRange {
  std::string type;     // "text/plain", lower case
  std::string version;  // "" when not given
  double q = 1;
};

// A q-value, 0 to 1 in plain decimals; anything else as 0, not acceptable. from_chars, not
// strtod, so that the answer does not depend on the locale.
double quality(const std::string& text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return 0;  // no sign, inf or nan
  double q = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, q, std::chars_format::fixed);
  return error == std::errc() && stop == end && q <= 1 ? q : 0;
}

std::vector<MediaRange> parseAccept(const std::string& accept) {
  std::vector<MediaRange> ranges;
  size_t start = 0;
  while (start <= accept.size()) {
    size_t end = accept.find(',', start);
    if (end == std::string::npos) end = accept.size();
    const std::string item = accept.substr(start, end - start);
    start = end + 1;
    MediaRange range;
    size_t field = 0;
    for (size_t pos = 0; pos <= item.size();) {
      size_t semicolon = item.find(';', pos);
      if (semicolon == std::string::npos) semicolon = item.size();
      const std::string part = trim(item.substr(pos, semicolon - pos));
      pos = semicolon + 1;
      if (field++ == 0) {
        range.type = lower(part);
        continue;
      }
      const size_t equals = part.find('=');
      if (equals == std::string::npos) continue;
      const std::string key = lower(trim(part.substr(0, equals)));
      std::string value = trim(part.substr(equals + 1));
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      if (key == "version") range.version = value;
      if (key == "q") range.q = quality(value);
    }
    if (!range.type.empty()) ranges.push_back(range);
  }
  // Highest preference first; equal ones in the order given.
  std::stable_sort(ranges.begin(), ranges.end(),
                   [](const MediaRange& a, const MediaRange& b) { return a.q > b.q; });
  return ranges;
}

std::string toDecimal(Units value) {
  if (value == 0) return "0";
  std::string digits;
  for (; value != 0; value /= 10) digits += static_cast<char>('0' + static_cast<int>(value % 10));
  std::reverse(digits.begin(), digits.end());
  return digits;
}

// `units` / 10^scale, exactly, without trailing zeros: 1500000000 at scale 9 -> "1.5".
std::string formatValue(Units units, unsigned scale) {
  Units divisor = 1;
  for (unsigned i = 0; i < scale; ++i) divisor *= 10;
  std::string text = toDecimal(units / divisor);
  std::string fraction = toDecimal(units % divisor);
  if (scale == 0 || units % divisor == 0) return text;
  fraction.insert(0, scale - fraction.size(), '0');
  fraction.erase(fraction.find_last_not_of('0') + 1);
  return text + "." + fraction;
}

}  // namespace

ExpositionFormat negotiateFormat(const std::string& accept) {
  for (const MediaRange& range : parseAccept(accept)) {
    if (range.q <= 0) continue;
    const bool anyVersion = range.version.empty();
    if (range.type == "application/openmetrics-text" && (anyVersion || range.version == "1.0.0")) {
      return ExpositionFormat::kOpenMetrics;
    }
    if (range.type == "text/plain" && (anyVersion || range.version == "0.0.4")) break;
  }
  return ExpositionFormat::kText;
}

const char* contentType(ExpositionFormat format) {
  return format == ExpositionFormat::kOpenMetrics
             ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
             : "text/plain; version=0.0.4; charset=utf-8";
}

std::string labelValue(const std::string& value) {
  std::string out = "\"";
  for (const char c : validUtf8(value)) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string labels(std::initializer_list<std::pair<const char*, std::string>> list) {
  std::string text;
  for (const auto& [name, value] : list) {
    text += (text.empty() ? "{" : ",") + std::string(name) + "=" + labelValue(value);
  }
  return text.empty() ? text : text + "}";
}

Family::Family(std::string name, MetricKind kind, std::string unit, std::string help,
               unsigned scale)
    : name_(std::move(name)),
      kind_(kind),
      unit_(std::move(unit)),
      help_(std::move(help)),
      scale_(scale) {}

void Family::add(const std::string& labels, Units units) {
  const auto [it, inserted] = index_.try_emplace(labels, samples_.size());
  if (inserted) {
    samples_.emplace_back(labels, units);
  } else {
    samples_[it->second].second += units;
  }
}

void Family::set(const std::string& labels, Units units) {
  if (index_.try_emplace(labels, samples_.size()).second) samples_.emplace_back(labels, units);
}

void Family::render(ExpositionFormat format, std::string* out) const {
  if (samples_.empty()) return;
  const std::string sample = name_ + (kind_ == MetricKind::kCounter ? "_total"
                                      : kind_ == MetricKind::kInfo  ? "_info"
                                                                    : "");
  if (format == ExpositionFormat::kText) {
    *out += "# HELP " + sample + " " + help_ + "\n";
    *out += "# TYPE " + sample + (kind_ == MetricKind::kCounter ? " counter\n" : " gauge\n");
  } else {
    const char* type = kind_ == MetricKind::kCounter ? "counter"
                       : kind_ == MetricKind::kInfo  ? "info"
                                                     : "gauge";
    *out += "# TYPE " + name_ + " " + type + "\n";
    if (!unit_.empty()) *out += "# UNIT " + name_ + " " + unit_ + "\n";
    *out += "# HELP " + name_ + " " + help_ + "\n";
  }
  for (const auto& [labels, units] : samples_) {
    *out += sample + labels + " " + formatValue(units, scale_) + "\n";
  }
}

}  // namespace zelk::cli
