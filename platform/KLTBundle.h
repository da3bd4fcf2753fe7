// KLTBundle: the application's own version string ("short version", such as "2.4.1"), which the
// embedding code sets once it knows it. Audience version rules compare against it.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <optional>
#include <string>

class KLTBundle {
 public:
  // The application's version; nothing when the embedding code has not set one.
  static std::optional<std::string> shortVersionString();
  // Sets (or, with nothing, clears) the application's version.
  static void setShortVersionString(std::optional<std::string> version);
};
