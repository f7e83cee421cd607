// The command line: options anywhere, "--", the map sizes of load, and seconds and volts in any
// locale.
#include "commands/options.h"

#include <gtest/gtest.h>

#include <clocale>

namespace zelk::cli {
namespace {

TEST(ParseOptionsTest, OptionsAnywhereUntilDoubleDash) {
  const ParsedOptions parsed = parseOptions({"--json", "show", "process", "--", "-bash", "--flag"});
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"show", "process", "-bash", "--flag"}));
  EXPECT_EQ(parsed.options.format, Format::kJson);
  EXPECT_FALSE(parsed.options.flag);
}

TEST(ParseOptionsTest, MapSizesForLoad) {
  ParsedOptions parsed =
      parseOptions({"load", "--pids", "128", "--names", "64", "--kthreads", "32"});
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.words, (std::vector<std::string>{"load"}));
  EXPECT_EQ(parsed.options.sizes.names, 64u);
  EXPECT_EQ(parsed.options.sizes.kthreads, 32u);
  EXPECT_EQ(parsed.options.sizes.pids, 128u);
  EXPECT_EQ(parseOptions({"load"}).options.sizes.pids, 0u);  // the machine's default
  for (const auto& args : std::vector<std::vector<std::string>>{{"load", "--names", "0"},
                                                                {"load", "--names", "abc"},
                                                                {"load", "--names", "-1"},
                                                                {"load", "--names", "4294967296"},
                                                                {"load", "--names"}}) {
    parsed = parseOptions(args);
    EXPECT_EQ(parsed.error, "--names takes a number of entries from 1 to 4294967295")
        << args.back();
  }
}

TEST(ParseOptionsTest, SecondsAndVoltsInAnyLocale) {
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (setlocale(LC_NUMERIC, locale) == nullptr) continue;  // the plain C locale always runs
    EXPECT_EQ(parseOptions({"top", "--interval", "0.5"}).options.interval, 0.5) << locale;
    EXPECT_EQ(parseOptions({"show", "energy", "--voltage", "3.85"}).options.voltage, 3.85)
        << locale;
    for (const char* bad : {"0.05", "3601", "1,5", "1e1", "-1", "", "0x1"}) {
      EXPECT_EQ(parseOptions({"top", "--interval", bad}).error,
                "--interval takes seconds from 0.1 to 3600")
          << bad;
    }
    for (const char* bad : {"0", "-3.8", "3,8", "inf", "3.8V"}) {
      EXPECT_EQ(parseOptions({"show", "energy", "--voltage", bad}).error,
                "--voltage takes a positive number of volts, such as 3.8")
          << bad;
    }
  }
  setlocale(LC_NUMERIC, "C");
}

}  // namespace
}  // namespace zelk::cli
