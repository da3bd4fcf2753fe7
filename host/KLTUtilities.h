// KLTUtilities: device facts and small readings the host offers its plug-ins.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/KLTValue.h"

class KLTUtilities {
 public:
  // The device's hardware model name (as set by the embedding code; by default the machine name
  // the operating system reports, such as "x86_64").
  static std::string deviceName();
  static void setDeviceName(std::string name);

  // Whether the user is in the first session of the app's life (false unless set).
  static bool isFirstSession();
  static void setFirstSession(bool first);

  // Reads an ISO 8601 / RFC 3339 date-time: "2026-11-22T10:00:00Z", with optional fractional
  // seconds and a "Z" or "+hh:mm" / "-hh:mm" offset ("T" and "Z" may be lower case). Anything
  // else, a value that is not text included, gives nothing.
  static std::optional<KLTTimePoint> dateFromKLTDateString(const KLTValue& text);

  // True for a text of at least one character.
  static bool isNonEmptyString(const KLTValue& value);
};
