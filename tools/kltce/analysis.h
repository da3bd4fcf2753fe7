// Static analysis of one campaign configuration: what in it can never happen, and what would stall
// the engine, found by reading the configuration alone (no events, no host state).
//
// It flags, among others: a condition that can never complete (no time_bounds, no usable count
// operator, an unknown event type), a trigger that can never fire (client_event, unknown type, no
// time_bounds), time bounds that can never hold (lower above upper, or over before the campaign's
// start date), a daily window that never opens, an unknown meta.type, a missing _id, and, as an
// error, a timer condition whose negative `time` blocks the engine's serial queue for good.
//
// Pure; safe from any thread. Any value is accepted (a non-object yields no findings).
#pragma once

#include <string>
#include <vector>

#include "platform/KLTValue.h"

namespace kltce {

enum class Severity { Warning, Error };

struct Finding {
  Severity severity = Severity::Warning;
  std::string where;    // the path in the configuration: "_id", "conditions[1].trigger", "time_limits"...
  std::string message;  // what is wrong and what it does
};

std::vector<Finding> analyzeCampaign(const KLTValue& config);

// "warning" or "error".
const char* severityName(Severity severity);

}  // namespace kltce
