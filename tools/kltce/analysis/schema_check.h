// Validation of a campaign document against the compiled-in JSON Schema (schema_text.h), with
// every violation given as a JSON Pointer into the document, the value found there, and a message
// in the document's own terms (an unknown key names the nearest known key).
//
// Pure apart from building the schema once (thread-safe, on first use). Any value is accepted;
// a document too deep to validate yields one violation at the root.
#pragma once

#include <string>
#include <vector>

#include "platform/KLTValue.h"

namespace kltce {

struct SchemaViolation {
  enum class Kind { UnknownKey, MissingKey, Other };
  Kind kind = Kind::Other;
  std::string path;  // JSON Pointer from the document's root ("/configs/0/prio")
  KLTValue value;    // the value at path (null for a missing key)
  std::string message;
};

// Every violation, in document order of their paths. An unknown key is reported once per key, a
// missing required key at the path it should have.
std::vector<SchemaViolation> validateAgainstSchema(const KLTValue& document);

// The value at a JSON Pointer, or null when nothing is there.
const KLTValue& valueAtPointer(const KLTValue& root, const std::string& pointer);

// "/conditions/1/details" -> "conditions[1].details": the dotted form the replay's messages use.
std::string dottedPath(const std::string& pointer);

// "a/b~c" -> "a~1b~0c": one JSON Pointer segment.
std::string pointerSegment(const std::string& key);

}  // namespace kltce
