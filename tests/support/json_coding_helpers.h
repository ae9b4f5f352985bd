// One-line coding through the host's coders, and the description of the error it raises.
#pragma once

#include "host/json_coding.h"

#include <string>
#include <string_view>

namespace testsupport {

template <class T>
std::string encoded(const T& value) {
  return vorn::tesk::TeskJSONCoding::makeEncoder().encode(value);
}

template <class T>
T decoded(std::string_view text) {
  return vorn::tesk::TeskJSONCoding::makeDecoder().decode<T>(text);
}

// The description of the error that decoding `text` (or encoding `value`) raises; "" if none.
template <class T>
std::string decodingError(std::string_view text) try {
  (void)decoded<T>(text);
  return "";
} catch (const vorn::tesk::DecodingError& error) {
  return error.description();
}

template <class T>
std::string encodingError(const T& value) try {
  (void)encoded(value);
  return "";
} catch (const vorn::tesk::EncodingError& error) {
  return error.description();
}

}  // namespace testsupport
