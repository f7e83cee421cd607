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

TEST(ParseOptionsTest, ServeLimits) {
  const HttpLimits defaults;
  ParsedOptions parsed = parseOptions({"serve"});
  EXPECT_EQ(parsed.options.web.headerTimeout, defaults.headerTimeout);
  EXPECT_EQ(parsed.options.web.maxConnections, 512u);
  EXPECT_EQ(parsed.options.web.maxBodyBytes, 65536u);
  parsed = parseOptions({"serve", "--web.header-timeout", "0.25", "--web.max-connections", "64",
                         "--web.max-body-bytes", "0"});
  EXPECT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.web.headerTimeout, std::chrono::milliseconds(250));
  EXPECT_EQ(parsed.options.web.maxConnections, 64u);
  EXPECT_EQ(parsed.options.web.maxBodyBytes, 0u);
  const std::pair<std::vector<std::string>, std::string> bad[] = {
      {{"--web.header-timeout", "0.05"}, "--web.header-timeout takes seconds from 0.1 to 3600"},
      {{"--web.header-timeout", "3601"}, "--web.header-timeout takes seconds from 0.1 to 3600"},
      {{"--web.header-timeout", "5s"}, "--web.header-timeout takes seconds from 0.1 to 3600"},
      {{"--web.header-timeout"}, "--web.header-timeout takes seconds from 0.1 to 3600"},
      {{"--web.max-connections", "0"},
       "--web.max-connections takes a number of connections from 1 to 65536"},
      {{"--web.max-connections", "65537"},
       "--web.max-connections takes a number of connections from 1 to 65536"},
      {{"--web.max-connections", "-1"},
       "--web.max-connections takes a number of connections from 1 to 65536"},
      {{"--web.max-body-bytes", "1073741825"},
       "--web.max-body-bytes takes a number of bytes from 0 to 1073741824"},
      {{"--web.max-body-bytes", "1k"},
       "--web.max-body-bytes takes a number of bytes from 0 to 1073741824"},
  };
  for (const auto& [args, error] : bad) {
    std::vector<std::string> line = {"serve"};
    line.insert(line.end(), args.begin(), args.end());
    EXPECT_EQ(parseOptions(line).error, error) << args[0];
  }
}

}  // namespace
}  // namespace zelk::cli
