// CSV fields, quoted as RFC 4180 needs and only then.
#include "views/csv_writer.h"

#include <gtest/gtest.h>

namespace zelk::cli {
namespace {

TEST(CsvTest, QuotesOnlyWhenNeeded) {
  EXPECT_EQ(csvRow({"kworker/0:1", "", "a,b", "say \"hi\"", "two\nlines", " pad", "\xff"}),
            "kworker/0:1,,\"a,b\",\"say \"\"hi\"\"\",\"two\nlines\",\" pad\",\xff\n");
}

}  // namespace
}  // namespace zelk::cli
