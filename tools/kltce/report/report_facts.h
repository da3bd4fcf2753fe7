// What the header of an HTML report says about the run that made it: the document's name and
// SHA-256, and the moment of the run as ISO 8601 UTC text.
//
// Safe from any thread; reads the document file and the environment.
#pragma once

#include <optional>
#include <string>

#include "platform/KLTClock.h"

namespace kltce {

// The moment a report gives as its run's: now, or SOURCE_DATE_EPOCH (whole seconds since the
// epoch) when that is set, so that a report made twice can be compared byte for byte.
KLTTimePoint reportMoment();
// The moment as "2026-11-25T16:31:20Z".
std::string reportTimeText(KLTTimePoint t);

struct DocumentFacts {
  std::string name;  // the path as given
  std::string sha256;
};
// Nothing (error set) when the file cannot be read.
std::optional<DocumentFacts> documentFacts(const std::string& path, std::string& error);

}  // namespace kltce
