#include "platform/json.h"

#include <boost/json/parse.hpp>
#include <boost/json/stream_parser.hpp>

namespace platform {

std::optional<boost::json::value> parseJSON(std::string_view text, std::string* error,
                                            std::size_t maxDepth) {
  boost::json::parse_options options;
  options.max_depth = maxDepth;
  boost::json::stream_parser parser({}, options);
  boost::system::error_code code;
  // write() refuses anything but white space after the value (error::extra_data).
  const std::size_t consumed = parser.write(text.data(), text.size(), code);
  if (!code) parser.finish(code);
  if (code) {
    if (error != nullptr) *error = code.message() + " at offset " + std::to_string(consumed);
    return std::nullopt;
  }
  return parser.release();
}

}  // namespace platform
