// KLTMacroHelper: fills [user_name(default)] and [session_name(default)] placeholders in a text from
// the host's current user's and session's custom info.
//
// Thread-safety: applyMacro() keeps no state between calls and may run on any thread at once; it
// reads the host's user and session as it runs.
#pragma once

#include <memory>
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
  // is not a non-empty text or the placeholder pattern cannot be compiled.
  std::optional<std::string> applyMacro(const KLTValue& text) const;
};
