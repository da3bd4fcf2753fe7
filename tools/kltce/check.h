// `kltce check`: for each campaign of a document, whether the engine admits it under a device
// profile (with the engine's own reason when it does not), and, for admitted ones, the findings of
// the static analysis (analysis.h).
//
// runCheck() installs the profile as the host's state and, with `at`, a virtual clock at that
// instant (restored afterwards). Call it from one thread, with no replay running.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/KLTValue.h"
#include "tools/kltce/analysis.h"
#include "tools/kltce/profile.h"

namespace kltce {

struct CampaignVerdict {
  std::size_t index = 0;
  KLTValue id;                  // the _id as given (null when absent)
  bool admitted = false;
  std::string reason;           // the engine's message for a rejection
  std::vector<Finding> findings;  // admitted campaigns only
};

// Runs the engine's admission check on every element of document.configs, in document order.
// The reason is read from the log lines the check writes (at LOG_LEVEL 0, restored afterwards).
std::vector<CampaignVerdict> checkCampaigns(const KLTValue& configs);

struct CheckOptions {
  KLTValue document;
  Profile profile;
  std::optional<KLTTimePoint> at;  // the moment of the check; nothing: now
  bool json = false;
};

// Writes the verdicts (text, or one JSON object with --json) to out and problems to err.
// Returns 0 when every campaign is admitted without an error finding, 1 when one is rejected or has
// an error finding, 2 when the document cannot be checked.
int runCheck(const CheckOptions& options, std::ostream& out, std::ostream& err);

}  // namespace kltce
