// Placeholder so the library links while the matching rules are written; every check is false.
#include "KLTContextEvaluator/KLTCEUtility.h"

bool KLTCEUtility::checkBool(bool, bool, const KLTValue&) { return false; }
bool KLTCEUtility::checkValue(int64_t, int64_t, const KLTValue&) { return false; }
bool KLTCEUtility::checkString(const KLTValue&, const KLTValue&, const KLTValue&) { return false; }
bool KLTCEUtility::checkAttrValue(const KLTValue&, int64_t, const KLTValue&) { return false; }
bool KLTCEUtility::evaluateConditionStatus(bool, bool, const KLTValue&) { return false; }
bool KLTCEUtility::checkGivenTime(int64_t, int64_t, int64_t) { return false; }
bool KLTCEUtility::compareGivenAttributes(const KLTValue&, const KLTValue&) { return false; }
bool KLTCEUtility::doesArray(const KLTValue&, const KLTValue&, const KLTValue&) { return false; }
bool KLTCEUtility::doesEventAttributes(const KLTValue&, const KLTValue&) { return false; }
bool KLTCEUtility::doesDictionary(const KLTValue&, const KLTValue&) { return false; }
bool KLTCEUtility::checkGivenVersion(const std::string&, const KLTValue&) { return false; }
