#include "platform/utf8.h"

#include <cstdint>
#include <cstring>

namespace platform {

std::size_t validUTF8PrefixLength(std::string_view text) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    // ASCII runs are the common case: check eight bytes at a time.
    if (i + 8 <= size) {
      std::uint64_t chunk = 0;
      std::memcpy(&chunk, bytes + i, sizeof chunk);
      if ((chunk & 0x8080808080808080ULL) == 0) {
        i += 8;
        continue;
      }
    }
    const std::uint8_t lead = bytes[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;   // no overlong forms
      if (lead == 0xED) high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;   // no overlong forms
      if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
      return i;
    }
    if (i + length > size) return i;
    if (bytes[i + 1] < low || bytes[i + 1] > high) return i;
    for (std::size_t k = 2; k < length; ++k) {
      if (bytes[i + k] < 0x80 || bytes[i + k] > 0xBF) return i;
    }
    i += length;
  }
  return size;
}

}  // namespace platform
