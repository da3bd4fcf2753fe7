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
// Thread-safety: applyMacro() may run on any thread, on several at once. Its only state is the
// compiled placeholder pattern, made once on first use; it reads the host's user and session
// afresh at every placeholder.
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

 private:
  // The compiled pattern, or nullptr when it does not compile. Compiled at the first call.
  const KLTRegex* placeholderPattern() const;

  mutable std::once_flag compileOnce_;
  mutable std::unique_ptr<KLTRegex> pattern_;
};
