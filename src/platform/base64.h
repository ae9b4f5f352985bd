// Base64 in its two alphabets: standard (RFC 4648 section 4, padded, no line breaks) and
// URL-safe without padding (section 5, as JOSE uses it). Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

std::string base64Encode(std::string_view bytes);
std::optional<std::string> base64Decode(std::string_view text);

std::string base64URLEncode(std::string_view bytes);
std::optional<std::string> base64URLDecode(std::string_view text);

}  // namespace platform
