// isNumber decides which /proc entries and oom_score_adj texts the seeding parses.
#include <gtest/gtest.h>

#include "zelkcpufreqtime.h"

namespace com::zelkora {
namespace {

TEST(IsNumberTest, AcceptsAnOptionalMinusAndAsciiDigitsOnly) {
  const struct {
    const char* text;
    bool expected;
  } cases[] = {
      {"0", true},
      {"-5", true},
      {"007", true},
      {"-1000", true},
      {"4194304", true},
      {"99999999999999999999", true},  // syntax only: the range is the parser's business
      {"", false},
      {"-", false},
      {"+5", false},
      {" 5", false},
      {"5 ", false},
      {"5a", false},
      {"--5", false},
      {"5-", false},
      {"self", false},
      {".", false},
      {"1\n", false},
      {"\xd9\xa3", false},  // ARABIC-INDIC DIGIT THREE: a digit, but not an ASCII one
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isNumber(c.text), c.expected) << '"' << c.text << '"';
  }
}

}  // namespace
}  // namespace com::zelkora
