// KLTValueReader: the one way JSON text and stored CBOR bytes become a KLTValue.
//
// Every reader of outside data (the campaign document, a device profile, each event-stream line, the
// store's persisted values) goes through these functions, so that one nesting limit holds for every
// value in the system. A value nested deeper than kKLTMaxValueDepth levels of lists and dictionaries
// is refused whole: nothing is built from it. Because no value ever gets deeper than that limit (plus
// the few levels the engine wraps around document values), the recursive copy, comparison and text
// form of values stay within a small, fixed stack depth whatever the input holds.
//
// Pure functions; safe from any thread. Nothing throws.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/KLTValue.h"

namespace klt {

// Levels of nested lists and dictionaries a value may have: `[]` and `{}` are one level,
// `{"configs": [{}]}` three. Campaign documents, profiles and event lines need fewer than ten.
inline constexpr std::size_t kKLTMaxValueDepth = 256;

struct KLTValueRead {
  KLTValue value;          // the parsed tree; null on failure
  std::string error;       // empty on success; otherwise what is wrong, ready to show to a person
  bool tooDeep = false;    // the input was refused for its nesting, not for its syntax
  bool ok() const { return error.empty(); }
};

// Parses one JSON text. A syntax error reads as the JSON library words it ("parse error at line 2,
// column 5: syntax error while parsing value - ..."); a value nested past the limit reads
// "nested deeper than 256 levels at line 3, column 12" (the position of the first bracket too many).
// Small texts that need none of the library's wording are read by a quicker reader to the very
// same tree (platform/KLTFastJson.h); everything else as readJsonTextByLibrary() reads it.
KLTValueRead readJsonText(std::string_view text);
// The same reading through the JSON library alone: the reference the quicker reader is held to.
KLTValueRead readJsonTextByLibrary(std::string_view text);

// Decodes one CBOR item as the store writes it; binary subtypes (dates) survive through their tags.
// Malformed bytes, trailing bytes and values nested past the limit give an error.
KLTValueRead readCbor(std::string_view bytes);

}  // namespace klt
