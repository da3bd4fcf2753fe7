// Helpers shared by the fuzz targets: splitting one fuzz input into its parts, and a quiet process
// (the engine's log lines would drown the fuzzer's own output and slow every run).
//
// Used from the fuzzer's one thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/KLTValue.h"

namespace kltce_fuzz {

// The input as text (any bytes, invalid UTF-8 included).
inline std::string_view asText(const uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The text before the first newline, and the rest after it (empty when there is no newline).
inline std::pair<std::string_view, std::string_view> firstLineAndRest(std::string_view text) {
  const auto newline = text.find('\n');
  if (newline == std::string_view::npos) return {text, {}};
  return {text.substr(0, newline), text.substr(newline + 1)};
}

// Sends the engine's log lines nowhere and sets the log level that lets every line through the
// gates (so that building them is fuzzed too). Call once, from LLVMFuzzerInitialize.
void silenceLog();

// Whether a condition's timer in the campaign document could never end (negative, or longer than
// ten years). The engine then blocks its queue for good by design (`kltce check` reports such
// timers), and no later input could run: targets leave such inputs out.
bool hasEndlessTimer(const KLTValue& document);

}  // namespace kltce_fuzz
