// Task names are bytes, not always UTF-8; every text format the tool writes needs valid UTF-8.
#pragma once

#include <cstddef>
#include <string>

namespace zelk::cli {

// Length of the valid UTF-8 sequence at `i` of `text`, or 0 (overlong forms, surrogates and
// values above U+10FFFF are invalid).
size_t utf8Length(const std::string& text, size_t i);

// `text` with each byte that is not part of a valid UTF-8 sequence replaced by U+FFFD.
std::string validUtf8(const std::string& text);

}  // namespace zelk::cli
