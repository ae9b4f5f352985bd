// The host's JSON coders. TeskJSONCoding::makeEncoder() / makeDecoder() hand out the
// encoder and decoder that all record coding goes through; they fix the text forms of
// dates (RFC 3339, UTC, milliseconds) and decimals (strings of plain text).
//
// Writing streams: a record's `encode` opens a keyed container and each field goes
// straight into the output text, in the order written, with no intermediate tree (small
// pieces pass through a staging buffer inside the encoder).
// Reading parses the whole text first (platform::parseJSON) and decodes from the tree.
//
// A type takes part by providing
//     void encode(vorn::tesk::Encoder&) const;
//     static T decode(const vorn::tesk::Decoder&);
// or by specialising vorn::tesk::Coding<T>. Errors are exceptions (EncodingError,
// DecodingError) whose description names the kind of failure and the coding path; they
// never leave the bridge, which turns them into error answers.
//
// Encoders and decoders are cheap, single-use, single-thread objects.
#pragma once

#include "host/decimal_value.h"
#include "platform/date.h"

#include <boost/json/value.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace vorn::tesk {

// One step of a coding path: a key or an array index. Nodes live on the stack of the
// coder that is descending, each pointing to its parent.
struct CodingPathNode {
  const CodingPathNode* parent = nullptr;
  std::string_view key;
  std::size_t index = 0;
  bool isIndex = false;
};

// "transactions[3].productId"; empty at the top level.
std::string formatCodingPath(const CodingPathNode* node);

class EncodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  std::string description() const { return what(); }
};

class DecodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  std::string description() const { return what(); }
};

class Encoder;
class Decoder;

template <class T>
struct Coding {
  static void encode(Encoder& encoder, const T& value) { value.encode(encoder); }
  static T decode(const Decoder& decoder) { return T::decode(decoder); }
};

class KeyedEncodingContainer;
class UnkeyedEncodingContainer;

class Encoder {
 public:
  explicit Encoder(std::string& out) : out_(out) {}
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  // Containers write their closing bracket when they go out of scope.
  KeyedEncodingContainer keyedContainer();
  UnkeyedEncodingContainer unkeyedContainer();

  // Single values.
  void encodeNull() { write("null"); }
  void encode(bool value) { write(value ? std::string_view("true") : std::string_view("false")); }
  void encode(std::int32_t value) { encode(static_cast<std::int64_t>(value)); }
  void encode(std::int64_t value);
  void encode(std::uint64_t value);
  void encode(std::string_view value);  // refuses text that is not valid UTF-8
  void encode(const char* value) { encode(std::string_view(value)); }
  void encode(platform::Date value);
  void encode(const DecimalValue& value);

  template <class T>
    requires(!std::is_arithmetic_v<T> && !std::is_convertible_v<const T&, std::string_view>)
  void encode(const T& value) {
    Coding<T>::encode(*this, value);
  }

  // Hands what is still buffered to the output; the text is complete only after this.
  // JSONEncoder calls it once the value is written.
  void flush() {
    out_.append(buffer_.data(), cursor_);
    cursor_ = buffer_.data();
  }

  std::string codingPath() const { return formatCodingPath(path_); }

 private:
  friend class KeyedEncodingContainer;
  friend class UnkeyedEncodingContainer;

  // Small pieces (brackets, keys, numbers, dates) are gathered here and reach the output in
  // appends of up to this size, so writing one is a store and a bounds check instead of a
  // string append; long runs of text go to the output directly.
  static constexpr std::size_t kBufferSize = 2048;

  // A place for `count` (at most kBufferSize) more bytes; the caller advances cursor_.
  char* room(std::size_t count) {
    if (static_cast<std::size_t>(buffer_.data() + kBufferSize - cursor_) < count) flush();
    return cursor_;
  }
  void put(char c) {
    *room(1) = c;
    ++cursor_;
  }
  void write(std::string_view text) {
    if (text.size() <= static_cast<std::size_t>(buffer_.data() + kBufferSize - cursor_)) {
      cursor_ = std::copy(text.begin(), text.end(), cursor_);
      return;
    }
    flush();
    out_.append(text);
  }
  // Bytes written so far, buffered ones included.
  std::size_t size() const {
    return out_.size() + static_cast<std::size_t>(cursor_ - buffer_.data());
  }

  std::string& out_;
  const CodingPathNode* path_ = nullptr;
  std::array<char, kBufferSize> buffer_;  // not initialised: only written bytes are read
  char* cursor_ = buffer_.data();
};

class KeyedEncodingContainer {
 public:
  explicit KeyedEncodingContainer(Encoder& encoder) : encoder_(encoder) { encoder_.put('{'); }
  ~KeyedEncodingContainer() { encoder_.put('}'); }
  KeyedEncodingContainer(const KeyedEncodingContainer&) = delete;
  KeyedEncodingContainer& operator=(const KeyedEncodingContainer&) = delete;

  // Keys are the record's own field names: plain ASCII identifiers, written unescaped.
  template <class T>
  void encode(std::string_view key, const T& value) {
    writeKey(key);
    CodingPathNode node{encoder_.path_, key};
    encoder_.path_ = &node;
    encoder_.encode(value);
    encoder_.path_ = node.parent;
  }

  // The one rule for optional fields: an absent value leaves its key out (never null).
  template <class T>
  void encodeIfPresent(std::string_view key, const std::optional<T>& value) {
    if (value) encode(key, *value);
  }
  void encode(std::string_view key, const OptionalDecimalValue& value) {
    if (value.value) encode(key, DecimalValue{*value.value});
  }

 private:
  void writeKey(std::string_view key) {
    if (key.size() + 4 > Encoder::kBufferSize) {
      if (!first_) encoder_.put(',');
      first_ = false;
      encoder_.put('"');
      encoder_.write(key);
      encoder_.write("\":");
      return;
    }
    char* at = encoder_.room(key.size() + 4);
    if (!first_) *at++ = ',';
    first_ = false;
    *at++ = '"';
    at = std::copy(key.begin(), key.end(), at);
    *at++ = '"';
    *at++ = ':';
    encoder_.cursor_ = at;
  }
  Encoder& encoder_;
  bool first_ = true;
};

class UnkeyedEncodingContainer {
 public:
  explicit UnkeyedEncodingContainer(Encoder& encoder) : encoder_(encoder) {
    encoder_.put('[');
    start_ = encoder_.size();
  }
  ~UnkeyedEncodingContainer() { encoder_.put(']'); }
  UnkeyedEncodingContainer(const UnkeyedEncodingContainer&) = delete;
  UnkeyedEncodingContainer& operator=(const UnkeyedEncodingContainer&) = delete;

  // Makes room, in one step, for `remaining` more elements the size of the average so far
  // when that much room is not there yet. Long lists (thousands of transactions) then grow
  // the text once or twice instead of doubling it twenty times, which copies every byte
  // again each time and holds old and new buffer at once. Room never written is never
  // touched, so an estimate that is too high costs address space, not memory.
  void reserveForRemaining(std::size_t remaining) {
    if (count_ == 0 || remaining == 0) return;
    const std::size_t size = encoder_.size();
    const std::size_t needed = ((size - start_) / count_ + 1) * remaining;
    std::string& out = encoder_.out_;
    if (out.capacity() >= size + needed) return;
    out.reserve(size + needed + needed / 8);
  }

  template <class T>
  void encode(const T& value) {
    if (count_ != 0) encoder_.put(',');
    CodingPathNode node{encoder_.path_, {}, count_, true};
    encoder_.path_ = &node;
    encoder_.encode(value);
    encoder_.path_ = node.parent;
    ++count_;
  }

 private:
  Encoder& encoder_;
  std::size_t start_ = 0;
  std::size_t count_ = 0;
};

inline KeyedEncodingContainer Encoder::keyedContainer() { return KeyedEncodingContainer(*this); }
inline UnkeyedEncodingContainer Encoder::unkeyedContainer() {
  return UnkeyedEncodingContainer(*this);
}

class KeyedDecodingContainer;

class Decoder {
 public:
  Decoder(const boost::json::value& value, const CodingPathNode* path)
      : value_(value), path_(path) {}

  // Fails with valueNotFound for null and typeMismatch for anything but an object.
  KeyedDecodingContainer keyedContainer() const;

  bool decodeBool() const;
  std::int32_t decodeInt32() const;
  std::int64_t decodeInt64() const;
  std::uint64_t decodeUInt64() const;
  std::string decodeString() const;
  platform::Date decodeDate() const;
  DecimalValue decodeDecimal() const;

  template <class T>
  T decode() const;

  const boost::json::value& value() const { return value_; }
  const CodingPathNode* path() const { return path_; }
  std::string codingPath() const { return formatCodingPath(path_); }

  // "typeMismatch at a.b: expected <expected> but found <what the value is>"
  // (valueNotFound when the value is null).
  [[noreturn]] void failTypeMismatch(std::string_view expected) const;
  [[noreturn]] void failDataCorrupted(std::string_view reason) const;

 private:
  const boost::json::value& value_;
  const CodingPathNode* path_;
};

class KeyedDecodingContainer {
 public:
  KeyedDecodingContainer(const boost::json::object& object, const CodingPathNode* path)
      : object_(object), path_(path) {}

  // A required key: missing fails with keyNotFound, null with valueNotFound.
  template <class T>
  T decode(std::string_view key) const {
    const boost::json::value* found = object_.if_contains(key);
    if (found == nullptr) failKeyNotFound(key);
    CodingPathNode node{path_, key};
    return Decoder(*found, &node).decode<T>();
  }

  // An optional key: missing and null both mean absent.
  template <class T>
  std::optional<T> decodeIfPresent(std::string_view key) const {
    const boost::json::value* found = object_.if_contains(key);
    if (found == nullptr || found->is_null()) return std::nullopt;
    CodingPathNode node{path_, key};
    return Decoder(*found, &node).decode<T>();
  }

  bool contains(std::string_view key) const { return object_.contains(key); }

 private:
  [[noreturn]] void failKeyNotFound(std::string_view key) const;
  const boost::json::object& object_;
  const CodingPathNode* path_;
};

// An OptionalDecimalValue is read with its key's optionality built in.
template <>
inline OptionalDecimalValue KeyedDecodingContainer::decode<OptionalDecimalValue>(
    std::string_view key) const {
  const auto decimal = decodeIfPresent<DecimalValue>(key);
  return OptionalDecimalValue{decimal ? std::optional(decimal->value) : std::nullopt};
}

template <class T>
T Decoder::decode() const {
  if constexpr (std::is_same_v<T, bool>) {
    return decodeBool();
  } else if constexpr (std::is_same_v<T, std::int32_t>) {
    return decodeInt32();
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    return decodeInt64();
  } else if constexpr (std::is_same_v<T, std::uint64_t>) {
    return decodeUInt64();
  } else if constexpr (std::is_same_v<T, std::string>) {
    return decodeString();
  } else if constexpr (std::is_same_v<T, platform::Date>) {
    return decodeDate();
  } else if constexpr (std::is_same_v<T, DecimalValue>) {
    return decodeDecimal();
  } else {
    return Coding<T>::decode(*this);
  }
}

// Lists are JSON arrays; an element that fails names its index in the path.
template <class T>
struct Coding<std::vector<T>> {
  static void encode(Encoder& encoder, const std::vector<T>& values) {
    auto container = encoder.unkeyedContainer();
    for (std::size_t i = 0; i < values.size(); ++i) {
      container.reserveForRemaining(values.size() - i);
      container.encode(values[i]);
    }
  }
  static std::vector<T> decode(const Decoder& decoder) {
    if (!decoder.value().is_array()) decoder.failTypeMismatch("an array");
    const boost::json::array& array = decoder.value().get_array();
    std::vector<T> values;
    values.reserve(array.size());
    for (std::size_t i = 0; i < array.size(); ++i) {
      CodingPathNode node{decoder.path(), {}, i, true};
      values.push_back(Decoder(array[i], &node).decode<T>());
    }
    return values;
  }
};

class JSONEncoder {
 public:
  template <class T>
  std::string encode(const T& value) const {
    std::string out;
    encode(value, out);
    return out;
  }

  // Appends the JSON text of `value` to `out`. On an EncodingError `out` is left as it
  // was, so a caller building a larger text never keeps half a value.
  template <class T>
  void encode(const T& value, std::string& out) const {
    const std::size_t start = out.size();
    try {
      Encoder encoder(out);
      encoder.encode(value);
      encoder.flush();
    } catch (...) {
      out.resize(start);
      throw;
    }
  }
};

class JSONDecoder {
 public:
  // Parses `text` as one whole JSON document (any top-level value; nothing after it) and
  // decodes a T from it.
  template <class T>
  T decode(std::string_view text) const {
    const boost::json::value document = parse(text);
    return Decoder(document, nullptr).decode<T>();
  }

 private:
  static boost::json::value parse(std::string_view text);
};

struct TeskJSONCoding {
  static JSONEncoder makeEncoder() { return {}; }
  static JSONDecoder makeDecoder() { return {}; }
};

}  // namespace vorn::tesk
