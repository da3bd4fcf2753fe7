// One line of a kltce event stream (JSON Lines): a host event or a host action.
//
//   {"t": "2026-11-22T09:00:00Z", "type": "app", "name": "purchase", "attributes": {"plan": "gold"}}
//   {"t": 1763802000000, "type": "activity", "name": "Home"}
//   {"t": ..., "type": "presence"}
//   {"t": ..., "action": "shown", "id": "welcome_offer"}
//   {"t": ..., "action": "set_user_attributes", "attributes": {...}}      (merged into the present ones)
//   {"t": ..., "action": "set_session_attributes", "attributes": {...}}
//   {"t": ..., "action": "set_user_custom_info", "custom_info": {...}}
//   {"t": ..., "action": "set_session_custom_info", "custom_info": {...}}
//   {"t": ..., "action": "new_session", "attributes": {...}, "custom_info": {...}, "first_session": false}
//   {"t": ..., "action": "parse", "document": {...}}   or  "file": "other.json"   or neither (the start document)
// "t" (ISO 8601 text or epoch milliseconds) is optional: a line without it happens at the present
// replay time. Event types map to host event codes: activity 1, presence 3, app 4, client 5.
//
// parseStreamLine() is pure and safe from any thread; it never throws.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTValue.h"

namespace kltce {

enum class LineKind {
  Event,
  Shown,
  SetUserAttributes,
  SetSessionAttributes,
  SetUserCustomInfo,
  SetSessionCustomInfo,
  NewSession,
  Parse,
};

struct StreamLine {
  LineKind kind = LineKind::Event;
  std::optional<KLTTimePoint> time;
  // Event
  unsigned long code = 0;
  std::string name;
  KLTValue attributes = KLTValue::object();  // also: set_*_attributes, new_session
  // Shown
  std::string id;
  // set_*_custom_info, new_session (an object there; nothing on other lines)
  KLTValue customInfo;
  bool firstSession = false;  // new_session
  // Parse: an inline document, a file, or neither (the start document again)
  std::optional<KLTValue> document;
  std::string file;
  // Things ignored on this line (unknown keys), worth telling the person about.
  std::vector<std::string> notes;
};

struct LineResult {
  std::optional<StreamLine> line;  // nothing for a blank line or an error
  std::string error;               // what is wrong with the line; empty when it is usable or blank
};

LineResult parseStreamLine(std::string_view text);
// The same reading of a line already parsed as JSON (a fleet's line, its "device" key taken out);
// the line's objects (attributes, custom info) are moved out of object.
LineResult streamLineFromObject(KLTValue& object);

// The line streamLineFromObject makes of a common line (an event, a "shown" or a "new_session"
// action) whose keys are all known and said once ("device" too when deviceKey: a fleet's line),
// read straight from the text into a fresh line the caller gives (default-made); false for any
// other line or any doubt, which the general reading then reads (and words, and notes), and the
// given line's contents are then unspecified. The common lines, read without building a tree.
bool readStreamLineQuickly(std::string_view text, bool deviceKey, StreamLine& line);

// The host event code of an event type word ("app" 4, ...); 0 when unknown.
unsigned long eventCodeForType(std::string_view type);

}  // namespace kltce
