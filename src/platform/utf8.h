// UTF-8 validation (RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF).
#pragma once

#include <cstddef>
#include <string_view>

namespace platform {

// Length of the longest prefix of `text` that is valid UTF-8; equal to text.size() when
// the whole text is valid. A sequence cut off at the end counts as invalid.
std::size_t validUTF8PrefixLength(std::string_view text);

inline bool isValidUTF8(std::string_view text) {
  return validUTF8PrefixLength(text) == text.size();
}

}  // namespace platform
