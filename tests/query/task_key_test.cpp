// Task keys made from kernel records, map keys made from names, and the table key's hash.
#include "query/task_key.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace com::zelkora {
namespace {

process_info_t record(const char* bytes, size_t size) {
  process_info_t info;
  memset(&info, 0, sizeof(info));
  memcpy(info.comm, bytes, size);
  return info;
}

TEST(TaskKeyTest, NameEndsAtTheFirstNul) {
  const process_info_t kworker = record("kworker/0:1", 11);
  EXPECT_EQ(taskKeyFromComm(kworker.comm, 0).comm, "kworker/0:1");

  const process_info_t full = record("0123456789abcdef", 16);
  EXPECT_EQ(taskKeyFromComm(full.comm, 1).comm, "0123456789abcdef");

  // Stale bytes after the NUL are not part of the name.
  const process_info_t stale = record("sh\0stale-bytes", 14);
  EXPECT_EQ(taskKeyFromComm(stale.comm, 0).comm, "sh");

  EXPECT_EQ(taskKeyFromComm(record("", 0).comm, 0).comm, "");
}

TEST(TaskKeyTest, ReusedStringTakesEachNameWhole) {
  std::string name;
  assignTaskName(name, record("0123456789abcdef", 16).comm);
  assignTaskName(name, record("ab", 2).comm);
  EXPECT_EQ(name, "ab");
}

TEST(TaskKeyTest, MapKeyIsZeroPaddedOrCutTo16Bytes) {
  const process_key_t init = mapKeyFromName("init", true);
  const char expectedInit[16] = {'i', 'n', 'i', 't'};
  EXPECT_EQ(memcmp(init.comm, expectedInit, 16), 0);
  EXPECT_EQ(init.flag, 1u);

  const process_key_t empty = mapKeyFromName("", false);
  const char zeros[16] = {};
  EXPECT_EQ(memcmp(empty.comm, zeros, 16), 0);
  EXPECT_EQ(empty.flag, 0u);

  const process_key_t fifteen = mapKeyFromName("0123456789abcde", false);
  EXPECT_EQ(memcmp(fifteen.comm, "0123456789abcde", 16), 0) << "15 characters and a NUL";

  const process_key_t cut = mapKeyFromName("0123456789abcdefXYZ", false);
  EXPECT_EQ(memcmp(cut.comm, "0123456789abcdef", 16), 0);
}

TEST(TaskKeyTest, HashAndEqualityTakeTheFlagIntoAccount) {
  const size_t nameHash = std::hash<std::string>{}("a");
  EXPECT_EQ(process_key_char_hash{}({"a", 0}), nameHash);
  EXPECT_EQ(process_key_char_hash{}({"a", 1}), nameHash ^ 2);
  EXPECT_TRUE(process_key_char_equal{}({"a", 1}, {"a", 1}));
  EXPECT_FALSE(process_key_char_equal{}({"a", 0}, {"a", 1}));
  EXPECT_FALSE(process_key_char_equal{}({"a", 0}, {"ab", 0}));
}

}  // namespace
}  // namespace com::zelkora
