// `kltce check --compare OLD.json`: what a change of the campaign document changes, without a
// fleet. Which campaigns the new document adds, removes or edits (document_diff.h); for each
// edited one, every value that changed (its JSON Pointer within the campaign, the old value and
// the new); and for every campaign whether the engine admits it under the device profile in the
// old document and in the new one, with the step and message of a rejection.
//
// runCheckCompare() installs the profile as the host's state and, with `at`, a virtual clock at
// that instant (restored afterwards); the engine's log lines of its admission checks are dropped.
// Call it from one thread, with no replay running. Nothing here throws.
#pragma once

#include <ostream>

#include "platform/KLTValue.h"
#include "tools/kltce/analysis/check.h"

namespace kltce {

// Compares `before` (the old document) with options.document under options.profile, at
// options.at; options.json: one JSON object instead of text (requireAdmitted plays no part).
// Writes the comparison to out. Returns 0, or 2 (one line on err) when a document is not a
// campaign document.
int runCheckCompare(const CheckOptions& options, const KLTValue& before, std::ostream& out, std::ostream& err);

}  // namespace kltce
