#include "host/json_coding.h"

#include "platform/json.h"
#include "platform/utf8.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vorn::tesk {

namespace {

// What each byte needs inside a JSON string: 0 copy as is, 1 escape, 2 start of a
// multi-byte sequence that must be validated.
constexpr std::array<std::uint8_t, 256> makeByteClasses() {
  std::array<std::uint8_t, 256> classes{};
  for (int i = 0; i < 0x20; ++i) classes[static_cast<std::size_t>(i)] = 1;
  classes['"'] = 1;
  classes['\\'] = 1;
  for (int i = 0x80; i < 0x100; ++i) classes[static_cast<std::size_t>(i)] = 2;
  return classes;
}
constexpr auto kByteClasses = makeByteClasses();

// Where the first byte from `i` on is that cannot simply be copied (class 1 or 2), or
// `size` when there is none. Most text (tokens, identifiers, dates) has none, so it is
// checked a vector at a time: with AVX2 where the processor has it, else with SSE2, which
// every x86-64 processor has. Compared as signed bytes, 0x80 and above are negative, so
// "below 0x20" also catches every byte that is not ASCII. The long signed tokens usually
// come from memory rather than the cache, so they are fetched ahead of the check.
constexpr std::size_t kPrefetchDistance = 512;

std::size_t findNotPlainBytewise(const char* data, std::size_t i, std::size_t size) {
  for (; i < size; ++i) {
    if (kByteClasses[static_cast<std::uint8_t>(data[i])] != 0) return i;
  }
  return size;
}

#if defined(__SSE2__)
inline int notPlainMask16(const char* at) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
  const __m128i notPlain = _mm_or_si128(
      _mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20)),
      _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                   _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
  return _mm_movemask_epi8(notPlain);
}

std::size_t findNotPlainSSE2(const char* data, std::size_t i, std::size_t size) {
  for (; i + 64 <= size; i += 64) {
    _mm_prefetch(data + i + kPrefetchDistance, _MM_HINT_T0);
    if ((notPlainMask16(data + i) | notPlainMask16(data + i + 16) |
         notPlainMask16(data + i + 32) | notPlainMask16(data + i + 48)) != 0) {
      break;
    }
  }
  for (; i + 16 <= size; i += 16) {
    if (const int mask = notPlainMask16(data + i); mask != 0) {
      return i + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
  }
  if (i < size && size >= 16) {
    // The last sixteen bytes, overlapping what was checked already.
    const std::size_t base = size - 16;
    const auto mask = static_cast<unsigned>(notPlainMask16(data + base)) >> (i - base);
    return mask == 0 ? size : i + static_cast<std::size_t>(__builtin_ctz(mask));
  }
  return findNotPlainBytewise(data, i, size);
}
#endif

#if defined(__x86_64__)
__attribute__((target("avx2"))) inline unsigned notPlainMask32(const char* at) {
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
  const __m256i notPlain = _mm256_or_si256(
      _mm256_cmpgt_epi8(_mm256_set1_epi8(0x20), bytes),
      _mm256_or_si256(_mm256_cmpeq_epi8(bytes, _mm256_set1_epi8('"')),
                      _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8('\\'))));
  return static_cast<unsigned>(_mm256_movemask_epi8(notPlain));
}

__attribute__((target("avx2"))) std::size_t findNotPlainAVX2(const char* data, std::size_t i,
                                                              std::size_t size) {
  for (; i + 64 <= size; i += 64) {
    _mm_prefetch(data + i + kPrefetchDistance, _MM_HINT_T0);
    if ((notPlainMask32(data + i) | notPlainMask32(data + i + 32)) != 0) break;
  }
  for (; i + 32 <= size; i += 32) {
    if (const unsigned mask = notPlainMask32(data + i); mask != 0) {
      return i + static_cast<std::size_t>(__builtin_ctz(mask));
    }
  }
  return findNotPlainSSE2(data, i, size);
}
#endif

using FindNotPlain = std::size_t (*)(const char*, std::size_t, std::size_t);

FindNotPlain pickFindNotPlain() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return findNotPlainAVX2;
#endif
#if defined(__SSE2__)
  return findNotPlainSSE2;
#else
  return findNotPlainBytewise;
#endif
}

// Chosen on first use, so that even encoding during static initialisation finds it set.
std::size_t findNotPlain(const char* data, std::size_t i, std::size_t size) {
  static const FindNotPlain chosen = pickFindNotPlain();
  return chosen(data, i, size);
}

// Identifiers, tokens of a few dozen bytes, dates as text: most strings are short, and
// most need nothing but copying. Those of 16 to 64 bytes are checked and copied with
// (overlapping) 16-byte loads and stores straight into `at`, which has room for size + 2;
// false when the text needs the general path.
bool writeShortPlain(char* at, const char* data, std::size_t size) {
#if defined(__SSE2__)
  if (size < 16 || size > 64) return false;
  auto load = [&](std::size_t from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + from));
  };
  auto notPlain = [](__m128i bytes) {
    return _mm_or_si128(_mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20)),
                        _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                     _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
  };
  // Four blocks cover the text: two from the front, two from the back (overlapping when
  // the text is shorter than 64 bytes).
  const std::size_t second = size > 32 ? 16 : size - 16;
  const std::size_t third = size > 32 ? size - 32 : 0;
  const __m128i blocks[4] = {load(0), load(second), load(third), load(size - 16)};
  const __m128i any = _mm_or_si128(_mm_or_si128(notPlain(blocks[0]), notPlain(blocks[1])),
                                   _mm_or_si128(notPlain(blocks[2]), notPlain(blocks[3])));
  if (_mm_movemask_epi8(any) != 0) return false;
  *at = '"';
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 1), blocks[0]);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 1 + second), blocks[1]);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 1 + third), blocks[2]);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 1 + size - 16), blocks[3]);
  at[size + 1] = '"';
  return true;
#else
  (void)at;
  (void)data;
  (void)size;
  return false;
#endif
}

// The escaped form of a byte of class 1 at `at` (room for six bytes); returns its end.
char* writeEscaped(char* at, char c) {
  char shortForm = 0;
  switch (c) {
    case '"': shortForm = '"'; break;
    case '\\': shortForm = '\\'; break;
    case '\b': shortForm = 'b'; break;
    case '\f': shortForm = 'f'; break;
    case '\n': shortForm = 'n'; break;
    case '\r': shortForm = 'r'; break;
    case '\t': shortForm = 't'; break;
    default: break;
  }
  *at++ = '\\';
  if (shortForm != 0) {
    *at++ = shortForm;
    return at;
  }
  constexpr std::string_view kHex = "0123456789abcdef";
  const auto byte = static_cast<std::uint8_t>(c);
  *at++ = 'u';
  *at++ = '0';
  *at++ = '0';
  *at++ = kHex[byte >> 4];
  *at++ = kHex[byte & 0xF];
  return at;
}

std::string describeValue(const boost::json::value& value) {
  switch (value.kind()) {
    case boost::json::kind::null: return "null";
    case boost::json::kind::bool_: return "a boolean";
    case boost::json::kind::int64: return "the number " + std::to_string(value.get_int64());
    case boost::json::kind::uint64: return "the number " + std::to_string(value.get_uint64());
    case boost::json::kind::double_: return "a number with a fraction or exponent";
    case boost::json::kind::string: return "a string";
    case boost::json::kind::array: return "an array";
    case boost::json::kind::object: return "an object";
  }
  return "a value";
}

std::string at(const CodingPathNode* path) {
  std::string where = formatCodingPath(path);
  return where.empty() ? std::string() : " at " + where;
}

// A JSON number written with a fraction or exponent still counts as an integer when it
// is whole and below 2^52 in magnitude. Boost.JSON 1.81 reads such numbers with up to
// about 1.5 units in the last place of error; below 2^52 (units of at most 0.5) that
// error cannot land on a different whole number, from there on it can:
// "-9007199254740991.0" reads as -9007199254740990.
std::optional<double> exactWholeNumber(const boost::json::value& value) {
  if (!value.is_double()) return std::nullopt;
  const double number = value.get_double();
  constexpr double kExactLimit = 4503599627370496.0;  // 2^52
  if (std::trunc(number) != number || std::fabs(number) >= kExactLimit) return std::nullopt;
  return number;
}

}  // namespace

std::string formatCodingPath(const CodingPathNode* node) {
  std::vector<const CodingPathNode*> nodes;
  for (; node != nullptr; node = node->parent) nodes.push_back(node);
  std::string path;
  for (auto it = nodes.rbegin(); it != nodes.rend(); ++it) {
    if ((*it)->isIndex) {
      path += '[';
      path += std::to_string((*it)->index);
      path += ']';
    } else {
      if (!path.empty()) path += '.';
      path += (*it)->key;
    }
  }
  return path;
}

void Encoder::encode(std::int64_t value) {
  constexpr std::size_t kMaxDigits = 20;
  char* at = room(kMaxDigits);
  cursor_ = std::to_chars(at, at + kMaxDigits, value).ptr;
}

void Encoder::encode(std::uint64_t value) {
  constexpr std::size_t kMaxDigits = 20;
  char* at = room(kMaxDigits);
  cursor_ = std::to_chars(at, at + kMaxDigits, value).ptr;
}

void Encoder::encode(std::string_view value) {
  const char* data = value.data();
  if (value.size() <= 64) {
    char* at = room(value.size() + 2);
    if (writeShortPlain(at, data, value.size())) {
      cursor_ = at + value.size() + 2;
      return;
    }
  }
  put('"');
  const std::size_t size = value.size();
  std::size_t runStart = 0;
  std::size_t i = findNotPlain(data, 0, size);
  while (i < size) {
    if (kByteClasses[static_cast<std::uint8_t>(data[i])] == 2) {
      // Multi-byte sequences are made of non-ASCII bytes only, so the whole non-ASCII
      // stretch is validated at once and stays part of the copied run.
      std::size_t end = i;
      while (end < size && kByteClasses[static_cast<std::uint8_t>(data[end])] == 2) ++end;
      const std::size_t valid = platform::validUTF8PrefixLength(value.substr(i, end - i));
      if (valid != end - i) {
        throw EncodingError("invalidValue" + at(path_) +
                            ": the string is not valid UTF-8 (byte offset " +
                            std::to_string(i + valid) + ")");
      }
      i = end;
    } else {
      write(value.substr(runStart, i - runStart));
      cursor_ = writeEscaped(room(6), data[i]);
      ++i;
      runStart = i;
    }
    i = findNotPlain(data, i, size);
  }
  write(value.substr(runStart));
  put('"');
}

void Encoder::encode(platform::Date value) {
  char* at = room(platform::kMaxRFC3339Length + 2);
  *at++ = '"';
  at = platform::writeRFC3339(at, value);
  *at++ = '"';
  cursor_ = at;
}

void Encoder::encode(const DecimalValue& value) {
  put('"');
  flush();
  value.value.appendTo(out_);
  put('"');
}

KeyedDecodingContainer Decoder::keyedContainer() const {
  if (!value_.is_object()) failTypeMismatch("an object");
  return KeyedDecodingContainer(value_.get_object(), path_);
}

void Decoder::failTypeMismatch(std::string_view expected) const {
  const char* kind = value_.is_null() ? "valueNotFound" : "typeMismatch";
  throw DecodingError(std::string(kind) + at(path_) + ": expected " + std::string(expected) +
                      " but found " + describeValue(value_));
}

void Decoder::failDataCorrupted(std::string_view reason) const {
  throw DecodingError("dataCorrupted" + at(path_) + ": " + std::string(reason));
}

void KeyedDecodingContainer::failKeyNotFound(std::string_view key) const {
  throw DecodingError("keyNotFound" + at(path_) + ": \"" + std::string(key) + "\"");
}

bool Decoder::decodeBool() const {
  if (!value_.is_bool()) failTypeMismatch("a boolean");
  return value_.get_bool();
}

std::int32_t Decoder::decodeInt32() const {
  constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
  constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
  if (value_.is_int64() && value_.get_int64() >= kMin && value_.get_int64() <= kMax) {
    return static_cast<std::int32_t>(value_.get_int64());
  }
  if (const auto whole = exactWholeNumber(value_); whole && *whole >= kMin && *whole <= kMax) {
    return static_cast<std::int32_t>(*whole);
  }
  failTypeMismatch("a 32-bit integer");
}

std::int64_t Decoder::decodeInt64() const {
  if (value_.is_int64()) return value_.get_int64();
  if (const auto whole = exactWholeNumber(value_)) return static_cast<std::int64_t>(*whole);
  failTypeMismatch("a 64-bit integer");
}

std::uint64_t Decoder::decodeUInt64() const {
  if (value_.is_uint64()) return value_.get_uint64();
  if (value_.is_int64() && value_.get_int64() >= 0) {
    return static_cast<std::uint64_t>(value_.get_int64());
  }
  if (const auto whole = exactWholeNumber(value_); whole && *whole >= 0) {
    return static_cast<std::uint64_t>(*whole);
  }
  failTypeMismatch("an unsigned 64-bit integer");
}

std::string Decoder::decodeString() const {
  if (!value_.is_string()) failTypeMismatch("a string");
  return std::string(value_.get_string());
}

platform::Date Decoder::decodeDate() const {
  if (!value_.is_string()) failTypeMismatch("an RFC 3339 date string");
  const auto date = platform::parseRFC3339(value_.get_string());
  if (!date) failDataCorrupted("expected an RFC 3339 date but found \"" +
                               std::string(value_.get_string()) + "\"");
  return *date;
}

DecimalValue Decoder::decodeDecimal() const {
  if (!value_.is_string()) failTypeMismatch("a decimal number in a string");
  const auto decimal = platform::Decimal::parse(value_.get_string());
  if (!decimal) failDataCorrupted("expected a decimal number but found \"" +
                                  std::string(value_.get_string()) + "\"");
  return DecimalValue{*decimal};
}

boost::json::value JSONDecoder::parse(std::string_view text) {
  std::string error;
  auto document = platform::parseJSON(text, &error);
  if (!document) throw DecodingError("dataCorrupted: the data is not valid JSON (" + error + ")");
  return std::move(*document);
}

}  // namespace vorn::tesk
