// `kltce check`: for each campaign of a document, whether the engine admits it under a device
// profile (with the engine's own reason when it does not), every reason it is rejected for
// (admission_report.h), the findings of the static analysis (analysis.h), the document's
// violations of its JSON Schema (schema_check.h) and repeated _id values. Every finding carries
// the JSON Pointer of the value at fault, from the document's root, and that value.
//
// runCheck() installs the profile as the host's state and, with `at`, a virtual clock at that
// instant (restored afterwards). Call it from one thread, with no replay running.
//
// Without admission (no profile, as a document's author checks it) only the document's own
// mistakes are reported: the schema's, the static analysis's, repeated _id values and the values
// that make the engine reject a campaign on every device. No campaign is said admitted or
// rejected, and neither the host's state nor the clock is read or changed.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/KLTValue.h"
#include "tools/kltce/analysis/analysis.h"
#include "tools/kltce/input/profile.h"

namespace kltce {

// Whether checkCampaigns runs the engine's admission check on the host's current state, or only
// looks for what rejects a campaign on any device.
enum class Admission { Checked, NotChecked };

struct CampaignVerdict {
  std::size_t index = 0;
  KLTValue id;                  // the _id as given (null when absent)
  bool admitted = false;        // false when admission is not checked
  std::string reason;           // the engine's message for a rejection
  std::vector<Finding> findings;  // paths from the document's root, in document order
};

// Runs the engine's admission check on every element of document.configs, in document order,
// and gathers every finding. The engine's reason is read from the log lines its check writes (at
// LOG_LEVEL 0, restored afterwards). Findings outside any campaign go to documentFindings.
// With requireAdmitted, a rejection that depends on the profile or the moment is an error.
// Admission::NotChecked neither calls the engine nor reads the host's state (see above).
std::vector<CampaignVerdict> checkCampaigns(const KLTValue& document, std::vector<Finding>& documentFindings,
                                            bool requireAdmitted = false, Admission admission = Admission::Checked);

struct CheckOptions {
  KLTValue document;
  Profile profile;
  std::optional<KLTTimePoint> at;  // the moment of the check; nothing: now
  bool json = false;
  bool requireAdmitted = false;  // a campaign rejected for this profile is an error
  Admission admission = Admission::Checked;  // NotChecked: profile and at are not used
};

// Writes the verdicts (text, or one JSON object with --json) to out and problems to err.
// Returns 0 when no finding is an error, 1 when one is, 2 when the document cannot be checked
// or requireAdmitted is asked without admission. Without admission the text's campaign lines read
// "id:" and its last line "N campaigns: admission not checked; ..."; the JSON has no "admitted" or
// "reason" per campaign and, instead of the "admitted" and "rejected" totals, "admission":
// "not checked".
int runCheck(const CheckOptions& options, std::ostream& out, std::ostream& err);

}  // namespace kltce
