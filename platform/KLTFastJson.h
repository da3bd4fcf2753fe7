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

}  // namespace klt
