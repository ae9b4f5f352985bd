#include "platform/uuid.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace platform {

UUID UUID::random() {
  Bytes bytes{};
  uuid_generate_random(bytes.data());
  return UUID{bytes};
}

std::optional<UUID> UUID::fromString(std::string_view text) {
  // libuuid wants a terminated 36-character string and is lenient about nothing else.
  if (text.size() != 36) return std::nullopt;
  std::array<char, 37> terminated{};
  std::copy(text.begin(), text.end(), terminated.begin());
  Bytes bytes{};
  if (uuid_parse(terminated.data(), bytes.data()) != 0) return std::nullopt;
  return UUID{bytes};
}

std::string UUID::uuidString() const {
  std::array<char, 37> text{};
  uuid_unparse_upper(bytes_.data(), text.data());
  return std::string(text.data(), 36);
}

}  // namespace platform
