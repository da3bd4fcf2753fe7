// Static analysis of one campaign configuration: what in it can never happen, what will behave
// otherwise than its text suggests, and what would stall the engine, found by reading the
// configuration alone (no events, no host state). The admission steps are reported separately
// (admission_report.h).
//
// Severities: error, the campaign (or one of its conditions or triggers) can never fire as written,
// or it will stall the engine; warning, it will behave differently from what the text suggests;
// info, a remark (a value read leniently but as meant, a rejection for this device only).
//
// It flags, among others: conditions that can never complete (no time_bounds, an operator outside
// the vocabulary such as "GTEE", an unknown event type), triggers that can never fire, daily windows
// that never open or never close, times of day that are not HH:MM, caps and priorities written as
// text, a missing _id, words outside the vocabulary, and timers that cannot end within the
// campaign's validity (negative, too large to read, or longer than the validity).
//
// Pure; safe from any thread. Any value is accepted (a non-object yields no findings).
#pragma once

#include <string>
#include <vector>

#include "platform/KLTValue.h"

namespace kltce {

enum class Severity { Info, Warning, Error };

struct Finding {
  Severity severity = Severity::Warning;
  std::string path;  // JSON Pointer into the configuration ("/conditions/1/trigger/event_type")
  KLTValue value;    // the offending value (null when it is missing)
  std::string message;
  bool rejects = false;  // one of the reasons the engine's admission check rejects the campaign
};

std::vector<Finding> analyzeCampaign(const KLTValue& config);

// "info", "warning" or "error".
const char* severityName(Severity severity);

// How a value shows in a message: text in quotes, anything else as compact JSON, null as "absent";
// cut after 120 bytes.
std::string shownValue(const KLTValue& value);

}  // namespace kltce
