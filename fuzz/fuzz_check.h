// What the fuzz targets share: a check that ends the run with a message libFuzzer keeps next
// to the input that broke it, and the split of one input into a name and a text.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace fuzzcheck {

// Not assert(): the targets are built with NDEBUG, and a broken promise must always stop.
#define FUZZ_REQUIRE(condition, detail)                                                 \
  do {                                                                                  \
    if (!(condition)) {                                                                 \
      std::fprintf(stderr, "%s:%d: broken: %s\n  %s\n", __FILE__, __LINE__, #condition, \
                   std::string(detail).c_str());                                        \
      std::abort();                                                                     \
    }                                                                                   \
  } while (false)

// "name\nrest": the name is everything before the first line break, the text the rest. An
// input without a line break is all name.
inline std::pair<std::string, std::string> splitFirstLine(const std::uint8_t* data,
                                                          std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto newline = input.find('\n');
  if (newline == std::string_view::npos) return {std::string(input), std::string()};
  return {std::string(input.substr(0, newline)), std::string(input.substr(newline + 1))};
}

}  // namespace fuzzcheck
