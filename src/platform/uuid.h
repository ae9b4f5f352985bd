// 128-bit universally unique identifiers over libuuid. A plain value.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class UUID {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  // A new random (version 4) identifier.
  static UUID random();

  // The hyphenated 36-character form in either letter case; nothing for anything else.
  static std::optional<UUID> fromString(std::string_view text);

  explicit UUID(const Bytes& bytes) : bytes_(bytes) {}

  // Upper-case hyphenated form, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string uuidString() const;
  const Bytes& bytes() const { return bytes_; }

  friend bool operator==(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace platform
