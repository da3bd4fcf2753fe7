// KLTFastJson: a quicker reading of small JSON texts (event lines, profiles) into a KLTValue, for
// the texts it reads exactly as the JSON library does.
//
// readJsonFast() answers nothing whenever it cannot promise the library's very tree: a syntax
// error of any kind, a text longer than kKLTFastJsonLimit, nesting past kKLTMaxValueDepth, a \u
// escape, an integer the library would read differently (one beyond 64 bits, a negative zero). The
// caller then reads the text the library's way, which words every error. When it answers, the tree
// is the one the library builds: the same kinds (integers signed or unsigned as the library makes
// them, floating numbers), the same values, keys in the same order, a repeated key at its first
// place with its last value.
//
// Thread-safety: any thread; each thread keeps its own reader, whose memory is bounded by the
// size limit. Nothing throws.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "platform/KLTValue.h"

namespace klt {

inline constexpr std::size_t kKLTFastJsonLimit = 64 * 1024;

std::optional<KLTValue> readJsonFast(std::string_view text);

// A member's value in a text that readJsonFastObject() reads; valid during the visitor's call only.
class KLTFastJsonField {
 public:
  enum class Kind { Null, Boolean, Number, Text, Array, Object };
  Kind kind() const;
  // A text value, its escapes resolved; empty for any other kind.
  std::string_view text() const;
  // The value as the library builds it; false (out unusable) when that cannot be promised.
  bool build(KLTValue& out) const;

 private:
  friend class KLTFastJsonReading;
  KLTFastJsonField(const void* element, std::string_view source) : element_(element), source_(source) {}
  const void* element_;
  std::string_view source_;
};

class KLTFastJsonVisitor {
 public:
  virtual ~KLTFastJsonVisitor() = default;
  // One member of the object, in text order, repeated keys included; false stops the reading.
  virtual bool member(std::string_view key, const KLTFastJsonField& value) = 0;
};

// Reads text as one JSON object and hands its members to visitor, without building the object:
// for a caller that wants a few members and reads the rest the library's way. False when
// readJsonFast would answer nothing for a reason the whole text shows (a syntax error, the size
// limit, a \u escape), when the text is not an object, or when the visitor stops. A member's
// text() is the library's text; what build() promises holds for each member built.
bool readJsonFastObject(std::string_view text, KLTFastJsonVisitor& visitor);

// Whether text is well-formed UTF-8, as the JSON library requires of its texts.
bool isValidUtf8(std::string_view text);

}  // namespace klt
