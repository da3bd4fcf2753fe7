// KLTMacroHelper: fills [user_name(default)] and [session_name(default)] placeholders in a text from
// the host's current user's and session's custom info.
//
// A placeholder is "[", "user" or "session" (any letter case), "_", a name of Unicode word
// characters and white space, "(", a default of the same characters, ")" and "]". Only the
// lower-case prefixes "[user_" and "[session_" are filled; other spellings are left as written.
// The name is looked up exactly as written (blanks included); a missing key, or a value that is
// null, a list or a dictionary, brings in the default. Text values are used as they stand, numbers
// and booleans in their text form.
//
// Each placeholder found in the input replaces every occurrence of its text in the text filled so
// far, including occurrences that an earlier value brought in. A value that holds a placeholder
// can therefore make the text grow at every match (doubling it, for a value holding its own
// placeholder twice); a filled text is bounded by filledTextLimit(): past it, applyMacro() stops,
// logs one ERROR line and returns nothing, as for an invalid text.
//
// Thread-safety: applyMacro() may run on any thread, on several at once. Its only shared state is
// the compiled placeholder pattern, made once on first use (each thread scans with its own
// matcher and working storage); it reads the host's user and session afresh for each placeholder
// text of a call (a text written twice is looked up once).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/KLTValue.h"

class KLTRegex;

class KLTMacroHelper {
 public:
  KLTMacroHelper();
  KLTMacroHelper(const KLTMacroHelper&) = delete;
  KLTMacroHelper& operator=(const KLTMacroHelper&) = delete;
  ~KLTMacroHelper();

  // The text with every recognised placeholder replaced; nothing (and an ERROR line) when the input
  // is not a non-empty text or the placeholder pattern cannot be compiled. Bytes that are not valid
  // UTF-8 never match a placeholder and come back as they were.
  std::optional<std::string> applyMacro(const KLTValue& text) const;

  // The largest filled text, in bytes, for an input of this size: 64 times the input, and never
  // less than 1 MiB.
  static constexpr std::size_t kFilledTextGrowth = 64;
  static constexpr std::size_t kFilledTextFloor = std::size_t{1} << 20;
  static std::size_t filledTextLimit(std::size_t inputSize);

 private:
  // The compiled pattern, or nullptr when it does not compile. Compiled at the first call.
  const KLTRegex* placeholderPattern() const;

  mutable std::once_flag compileOnce_;
  mutable std::unique_ptr<KLTRegex> pattern_;
};
