// One-line coding through the host's coders, and the description of its error ("" if none).
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

template <class T>
std::string decodingError(std::string_view text) try {
  return (void)decoded<T>(text), "";
} catch (const vorn::tesk::DecodingError& error) {
  return error.description();
}

template <class T>
std::string encodingError(const T& value) try {
  return (void)encoded(value), "";
} catch (const vorn::tesk::EncodingError& error) {
  return error.description();
}

}  // namespace testsupport
