// The command line: options anywhere, "--" and the map sizes of load.
#include "commands/options.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace zelk::cli
