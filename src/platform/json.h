// The one JSON parser of the process (Boost.JSON), with the options every reader shares:
// strict RFC 8259 (no comments, no trailing commas), valid UTF-8 required, any value
// accepted as the whole document, nothing but white space after it.
#pragma once

#include <boost/json/value.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Deep enough for any document this system exchanges; the limit keeps hostile input from
// exhausting the stack when a parsed tree is destroyed.
constexpr std::size_t kMaxJSONDepth = 256;

// Parses `text` as one JSON document nested at most `maxDepth` deep. On failure yields
// nothing and, when `error` is given, stores a description such as "syntax error at offset 3".
std::optional<boost::json::value> parseJSON(std::string_view text, std::string* error = nullptr,
                                            std::size_t maxDepth = kMaxJSONDepth);

}  // namespace platform
