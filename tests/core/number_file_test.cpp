// Parsing and reading sysfs number files.
#include "core/number_file.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace com::zelkora {
namespace {

struct Row {
  const char* text;
  std::optional<std::vector<uint64_t>> expected;
};

using V = std::vector<uint64_t>;

TEST(ParseNumbersTest, ValidAndMalformedRows) {
  const Row rows[] = {
      {"300000 576000 1000000 \n", V{300000, 576000, 1000000}},  // the kernel's own format
      {"", V{}},
      {" \n \n", V{}},
      {"7", V{7}},
      {"1  2\n\n3", V{1, 2, 3}},               // neighbouring separators give empty pieces
      {"0x493E0 0X10", V{300000, 16}},         // hexadecimal
      {"0755 00", V{755, 0}},                  // a leading zero alone is still decimal
      {"4294967295", V{4294967295u}},          // the largest 32-bit value
      {"\t5 \v6", V{5, 6}},                    // leading blanks inside a piece are skipped
      {"4294967296", std::nullopt},            // beyond 32 bits
      {"18446744073709551616", std::nullopt},  // beyond 64 bits
      {"-1", std::nullopt},
      {" \t-5", std::nullopt},
      {"1 2 x", std::nullopt},  // one bad token spoils the file
      {"5\t", std::nullopt},    // a trailing tab is left over
      {"5\r\n", std::nullopt},  // CRLF: the carriage return is left over
      {"0-3", std::nullopt},    // a range is not a number
      {"0x", std::nullopt},
      {"0xG", std::nullopt},
      {"+5", V{5}},  // strtoull accepts a sign of plus
      {"1,2", std::nullopt},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(parseNumbers(row.text), row.expected) << '"' << row.text << '"';
  }
}

TEST(ParseNumbersTest, EmbeddedNulIsNotANumber) {
  EXPECT_EQ(parseNumbers(std::string("1 2\0003", 5)), std::nullopt);
}

TEST(ReadNumbersFromFileTest, ReadsFilesButNotThroughAFinalSymlink) {
  TemporaryDir dir;
  const std::string file = std::string(dir.path) + "/freqs";
  const std::string link = std::string(dir.path) + "/link";
  ASSERT_TRUE(android::base::WriteStringToFile("100 200 \n", file));
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);

  EXPECT_EQ(readNumbersFromFile(file), (V{100, 200}));
  EXPECT_EQ(readNumbersFromFile(link), std::nullopt);
  EXPECT_EQ(readNumbersFromFile(std::string(dir.path) + "/missing"), std::nullopt);
}

}  // namespace
}  // namespace com::zelkora
