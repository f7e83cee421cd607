#include "core/number_file.h"

#include <android-base/file.h>
#include <android-base/strings.h>

#include <cerrno>
#include <cstdlib>

namespace com {
namespace zelkora {
namespace {

constexpr uint64_t kMaxNumber = 4294967295u;

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// By hand, not with libbase's ParseUint, which reads up to the first NUL: a token holding a NUL
// byte must be refused, not read as its first part.
std::optional<uint64_t> parseToken(const std::string& token) {
  const char* p = token.c_str();
  const char* const tokenEnd = p + token.size();
  while (isBlank(*p)) ++p;
  if (*p == '-') return std::nullopt;  // strtoull would wrap a negative number silently
  const int base = (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) ? 16 : 10;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(p, &end, base);
  // Compare with the token's end, not a NUL: binary files may hold NUL bytes.
  if (errno != 0 || end == p || end != tokenEnd) return std::nullopt;
  if (value > kMaxNumber) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::vector<uint64_t>> parseNumbers(const std::string& text) {
  std::vector<uint64_t> numbers;
  for (const std::string& token : android::base::Split(text, " \n")) {
    if (token.empty()) continue;
    const std::optional<uint64_t> value = parseToken(token);
    if (!value) return std::nullopt;
    numbers.push_back(*value);
  }
  return numbers;
}

std::optional<std::vector<uint64_t>> readNumbersFromFile(const std::string& path) {
  std::string text;
  if (!android::base::ReadFileToString(path, &text, /*follow_symlinks=*/false)) {
    return std::nullopt;
  }
  return parseNumbers(text);
}

}  // namespace zelkora
}  // namespace com
