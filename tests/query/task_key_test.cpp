// Map keys made from names, and the hash of the tables' task key. Task keys made from kernel
// names are checked through the queries, on real maps.
#include "query/task_key.h"

#include <gtest/gtest.h>

#include <cstring>

namespace com::zelkora {
namespace {

TEST(TaskKeyTest, MapKeyIsZeroPaddedOrCutTo16Bytes) {
  const process_key_t init = mapKeyFromName("init", true);
  EXPECT_EQ(memcmp(init.comm, "init\0\0\0\0\0\0\0\0\0\0\0\0", 16), 0);
  EXPECT_EQ(init.flag, 1u);
  EXPECT_EQ(memcmp(mapKeyFromName("", false).comm, "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16), 0);
  EXPECT_EQ(memcmp(mapKeyFromName("0123456789abcdefXYZ", false).comm, "0123456789abcdef", 16), 0);
}

TEST(TaskKeyTest, HashAndEqualityTakeTheFlagIntoAccount) {
  const size_t nameHash = std::hash<std::string>{}("a");
  EXPECT_EQ(process_key_char_hash{}({"a", 0}), nameHash);
  EXPECT_EQ(process_key_char_hash{}({"a", 1}), nameHash ^ 2);
  EXPECT_FALSE(process_key_char_equal{}({"a", 0}, {"a", 1}));
}

}  // namespace
}  // namespace com::zelkora
