// The exposition encoder: the format an Accept header picks, in any locale, and label values for
// any bytes.
#include "serve/encoder.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "namespace.h"

namespace zelk::cli {
namespace {

TEST(NegotiateFormat, OpenMetricsOnlyWhenRankedFirst) {
  struct Case {
    const char* accept;
    ExpositionFormat format;
  };
  const Case cases[] = {
      // Prometheus 2.42's own header.
      {"application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;"
       "q=0.75,text/plain;version=0.0.4;q=0.5,*/*;q=0.1",
       ExpositionFormat::kOpenMetrics},
      {"application/openmetrics-text", ExpositionFormat::kOpenMetrics},
      {"Application/OpenMetrics-Text; Version=\"1.0.0\"", ExpositionFormat::kOpenMetrics},
      {"text/plain;version=0.0.4;q=0.9, application/openmetrics-text;q=0.8",
       ExpositionFormat::kText},
      {"text/plain;q=0.2, application/openmetrics-text;q=0.3", ExpositionFormat::kOpenMetrics},
      {"application/openmetrics-text;version=0.0.1", ExpositionFormat::kText},
      {"application/openmetrics-text;version=2.0.0,text/plain", ExpositionFormat::kText},
      {"application/openmetrics-text;q=0", ExpositionFormat::kText},
      {"application/openmetrics-text;q=abc", ExpositionFormat::kText},
      // Not a quality (0 to 1, plain decimals): as not acceptable.
      {"application/openmetrics-text;q=nan", ExpositionFormat::kText},
      {"application/openmetrics-text;q=0x1", ExpositionFormat::kText},
      {"text/plain;q=2,application/openmetrics-text;q=0.5", ExpositionFormat::kOpenMetrics},
      {"", ExpositionFormat::kText},
      {"*/*", ExpositionFormat::kText},
      {",,;;=,", ExpositionFormat::kText},
  };
  // Alike under a locale that writes 0.5 as 0,5.
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (setlocale(LC_NUMERIC, locale) == nullptr) {
      ZELK_SKIP_OR_FAIL(std::string("no locale ") + locale + " (scripts/install-deps makes it)");
    }
    for (const Case& c : cases) {
      EXPECT_EQ(negotiateFormat(c.accept), c.format) << c.accept << " " << locale;
    }
  }
  setlocale(LC_NUMERIC, "C");
  EXPECT_STREQ(contentType(ExpositionFormat::kText), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_STREQ(contentType(ExpositionFormat::kOpenMetrics),
               "application/openmetrics-text; version=1.0.0; charset=utf-8");
}

TEST(LabelValue, EscapesAndReplacesWhatTheFormatsForbid) {
  const std::pair<std::string, std::string> cases[] = {
      {"kworker/0:1", R"("kworker/0:1")"},
      {"a\"b", R"("a\"b")"},
      {"back\\slash", R"("back\\slash")"},
      {"new\nline", R"("new\nline")"},
      {"tab\tcr\r", "\"tab\tcr\r\""},
      {"caf\xc3\xa9", "\"caf\xc3\xa9\""},
      {"\xff", "\"\xef\xbf\xbd\""},
      {"\xc3\x28", "\"\xef\xbf\xbd(\""},                             // a lead byte without its tail
      {"\xed\xa0\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\""},  // a surrogate
      {"\xe2\x82", "\"\xef\xbf\xbd\xef\xbf\xbd\""},                  // cut short at the end
      {"", "\"\""},
  };
  for (const auto& [name, quoted] : cases) EXPECT_EQ(labelValue(name), quoted) << name;
}
}  // namespace
}  // namespace zelk::cli
