// Every reason the engine's admission check would reject a campaign, found at once, for the
// report of `kltce check` (the engine's own check stops at the first and logs its own message; it
// is not changed by this).
//
// Each step of the check is evaluated and each that fails gives one finding, with the path of the
// value at fault and the values compared ("app 2.0 is not GT 3.0"). A failure that no device, user
// or moment could avoid (a disabled campaign aside) is an error; one that depends on this device,
// user, session or the moment of the check is an info, since another profile may pass it.
//
// Reads the host's state (device, app version, first session, user and session attributes) and the
// process clock, like the engine's check; call it where those are set, from one thread.
#pragma once

#include <vector>

#include "platform/KLTValue.h"
#include "tools/kltce/analysis/analysis.h"

namespace kltce {

// Findings all carry `rejects` = true. Empty when the engine admits the campaign.
std::vector<Finding> admissionFindings(const KLTValue& config);

// The findings of admissionFindings that every host state and moment give: the values that make
// the engine reject the campaign on any device (a date that is not one, an end before the start, a
// word outside the vocabulary, a missing additional_info, ...) and a campaign switched off. Reads
// neither the host's state nor the clock; pure, safe from any thread.
std::vector<Finding> unconditionalAdmissionFindings(const KLTValue& config);

}  // namespace kltce
