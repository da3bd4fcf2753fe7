// The lines the rule objects write to the log, each with its level, the method it names and the
// line number it carries. Hosts and people read these lines and match on them, method and number
// included, so both stay as the first releases wrote them however the code around the statements
// is arranged; a new line gets the number of the statement that first writes it.
#pragma once

#include "platform/KLTLog.h"

namespace KLTCELogSites {

inline constexpr KLTLogSite kValidationFailed{KLTLogLevel::Info, "-[KLTContextEvaluator parseConfiguration:]_block_invoke", 37};
inline constexpr KLTLogSite kConfigWithoutId{KLTLogLevel::Error, "-[KLTCEConfigItem initWithData:]", 23};
inline constexpr KLTLogSite kSequenceOutsideLimits{KLTLogLevel::Debug, "-[KLTCEConfigItem loadItemAtPosition:inConditions:]", 77};
inline constexpr KLTLogSite kSequenceSatisfied{KLTLogLevel::Debug, "-[KLTCEConfigItem loadItemAtPosition:inConditions:]", 80};
inline constexpr KLTLogSite kOutsideLimits{KLTLogLevel::Debug, "-[KLTCEConfigItem checkAllConditions]", 94};
inline constexpr KLTLogSite kSatisfied{KLTLogLevel::Debug, "-[KLTCEConfigItem checkAllConditions]", 98};
inline constexpr KLTLogSite kCountLimitExceeded{KLTLogLevel::Info, "-[KLTCEConfigItem checkCountAndValidity]", 104};

inline constexpr KLTLogSite kCountersNotADictionary{KLTLogLevel::Error, "-[KLTCEFrequency initWithData:withIdentifier:]", 64};
inline constexpr KLTLogSite kUpdatedCount{KLTLogLevel::Debug, "-[KLTCEFrequency updateFrequencyForIdentifier:]", 126};
inline constexpr KLTLogSite kOutsideTimeLimits{KLTLogLevel::Debug, "-[KLTCETimeLimits currentTimeBetweenLimits]", 185};
// Lines whose method is that of the frequency operation that met the fault.
inline constexpr int kRecordNotADictionaryLine = 139;
inline constexpr int kCouldNotSaveLine = 150;

}  // namespace KLTCELogSites
