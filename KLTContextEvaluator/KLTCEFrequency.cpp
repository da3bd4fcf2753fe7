// Placeholder so the library links while the delivery limits are written.
#include "KLTContextEvaluator/KLTCEFrequency.h"

KLTCEFrequency::KLTCEFrequency(const KLTValue&, const std::string&) {}
bool KLTCEFrequency::checkValidityAndCountForIdentifier(const std::string&) const { return false; }
void KLTCEFrequency::updateFrequencyForIdentifier(const std::string&) {}
KLTCETimeLimits::KLTCETimeLimits(const KLTValue&, const KLTValue&) {}
bool KLTCETimeLimits::currentTimeBetweenLimits() const { return false; }
