#include "KLTContextEvaluator/KLTCEUtility.h"

#include <optional>
#include <string_view>
#include <vector>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEAttributeMatcher.h"
#include "platform/KLTBundle.h"

namespace {

// The literal key of an audience rule's asked values.
constexpr std::string_view kRuleValue = "value";

using Word = KLTCEOperator;

bool checkBoolWord(bool a, bool b, Word word) {
  switch (word) {
    case Word::EQ:
      return a == b;
    case Word::NEQ:
      return a != b;
    default:
      return false;
  }
}

bool checkStringWord(const KLTValue& s, const KLTValue& v, Word word) {
  if (word != Word::EQ && word != Word::NEQ) return false;
  bool equal;
  if (klt::isList(v)) {
    equal = klt::listContains(v, s);
  } else if (klt::isString(v)) {
    equal = klt::isEqual(v, s);
  } else {
    // "NEQ" too is false here: an absent or non-text value is not "different", it is unusable.
    return false;
  }
  return word == Word::EQ ? equal : !equal;
}

bool checkAttrValueWord(const KLTValue& v, int64_t g, Word word) {
  if (klt::isList(v)) {
    if (word != Word::EQ && word != Word::NEQ) return false;
    const bool contained = klt::listContains(v, KLTValue(g));
    return word == Word::EQ ? contained : !contained;
  }
  if (klt::isNumber(v)) return KLTCECompare(klt::integerValue(v), g, word);
  return false;
}

const KLTValue& eqOperator() {
  static const KLTValue kEQ = kKLTOpEQ;
  return kEQ;
}

// Number identity for trigger data: numbers given by value, so "the same number" means the same
// kind (boolean, integer whatever its signedness, floating) and an equal value.
bool sameNumber(const KLTValue& x, const KLTValue& y) {
  enum class Kind { None, Boolean, Floating, Integer };
  const auto kind = [](const KLTValue& v) {
    if (v.is_boolean()) return Kind::Boolean;
    if (v.is_number_float()) return Kind::Floating;
    return v.is_number_integer() ? Kind::Integer : Kind::None;
  };
  return kind(x) != Kind::None && kind(x) == kind(y) && klt::isEqual(x, y);
}

// Version components: split at every "." (empty pieces kept); a text without "." is one component.
std::vector<std::string_view> versionComponents(std::string_view version) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (;;) {
    const std::size_t dot = version.find('.', start);
    if (dot == std::string_view::npos) {
      pieces.push_back(version.substr(start));
      return pieces;
    }
    pieces.push_back(version.substr(start, dot - start));
    start = dot + 1;
  }
}

}  // namespace

bool KLTCEUtility::checkBool(bool a, bool b, const KLTValue& op) { return checkBoolWord(a, b, KLTCEOperatorOf(op)); }

bool KLTCEUtility::checkValue(int64_t a, int64_t b, const KLTValue& op) { return KLTCECompare(a, b, KLTCEOperatorOf(op)); }

bool KLTCEUtility::checkString(const KLTValue& s, const KLTValue& v, const KLTValue& op) {
  return checkStringWord(s, v, KLTCEOperatorOf(op));
}

bool KLTCEUtility::checkAttrValue(const KLTValue& v, int64_t g, const KLTValue& op) {
  return checkAttrValueWord(v, g, KLTCEOperatorOf(op));
}

bool KLTCEUtility::evaluateConditionStatus(bool x, bool y, const KLTValue& op) {
  return KLTCECombineFlags(x, y, KLTCECombineOf(op));
}

bool KLTCEUtility::checkBool(bool a, bool b, KLTCEOperator op) { return checkBoolWord(a, b, op); }

bool KLTCEUtility::checkString(const KLTValue& s, const KLTValue& v, KLTCEOperator op) { return checkStringWord(s, v, op); }

bool KLTCEUtility::checkAttrValue(const KLTValue& v, int64_t g, KLTCEOperator op) { return checkAttrValueWord(v, g, op); }

bool KLTCEUtility::checkGivenTime(int64_t t, int64_t lower, int64_t upper) { return lower <= t && t <= upper; }

bool KLTCEUtility::compareGivenAttributes(const KLTValue& rule, const KLTValue& existing) {
  const std::string* name = klt::stringPtr(klt::valueForKey(rule, kKLTName));
  if (name == nullptr || !klt::isDictionary(existing)) return true;
  const auto found = existing.find(*name);
  if (found == existing.end()) return true;  // an attribute the host does not know constrains nothing

  const KLTValue& x = *found;
  const KLTValue& value = klt::valueForKey(rule, kRuleValue);
  const KLTValue& op = klt::valueForKey(rule, kKLTOperator);
  if (klt::isList(x)) return doesArray(x, value, op);
  if (klt::isString(x) || klt::isNumber(x)) {
    const Word word = KLTCEOperatorOf(op);
    if (word != Word::EQ && word != Word::NEQ) return true;  // an unknown word leaves the rule holding
    if (!value.is_null() && !klt::isList(value)) return false;  // membership of a non-list is undefined
    const bool contained = klt::listContains(value, x);
    return word == Word::EQ ? contained : !contained;
  }
  return true;
}

bool KLTCEUtility::doesArray(const KLTValue& a, const KLTValue& b, const KLTValue& op) {
  const Word word = KLTCEOperatorOf(op);
  if (word != Word::EQ && word != Word::NEQ) return true;  // unlike the scalar checks, on purpose
  if (b.is_null()) return true;                             // nothing asked for
  if (!klt::isList(b)) return false;                        // only a list can be gone through
  for (const KLTValue& element : b) {
    if (klt::listContains(a, element) != (word == Word::EQ)) return false;
  }
  return true;
}

bool KLTCEUtility::doesEventAttributes(const KLTValue& eventAttributes, const KLTValue& data) {
  return KLTCEAttributeMatcher::forCondition(data).matches(eventAttributes);
}

KLTCEUtility::IdentityStep KLTCEUtility::identityStep(const KLTValue& x, const KLTValue& y) {
  if (klt::isDictionary(y) && klt::isDictionary(x)) return IdentityStep::Descend;
  if (klt::isList(y) && klt::isList(x)) return doesArray(y, x, eqOperator()) ? IdentityStep::DecideTrue : IdentityStep::DecideFalse;
  if (klt::isString(y)) {
    return klt::isString(x) && x.get_ref<const std::string&>() == y.get_ref<const std::string&>() ? IdentityStep::Pass
                                                                                                 : IdentityStep::Fail;
  }
  if (klt::isNumber(y)) return sameNumber(x, y) ? IdentityStep::Pass : IdentityStep::Fail;
  // A present null, or a dictionary or list against another kind, is passed over.
  return IdentityStep::Pass;
}

bool KLTCEUtility::doesDictionary(const KLTValue& a, const KLTValue& b) {
  // A nested dictionary decides the whole result, so descending into it is a tail call: a loop
  // keeps the stack flat however deep the documents nest.
  const KLTValue* event = &a;
  const KLTValue* data = &b;
  for (;;) {
    if (!klt::isDictionary(*data)) return true;
    const KLTValue* nextEvent = nullptr;
    const KLTValue* nextData = nullptr;
    for (auto it = data->begin(); it != data->end(); ++it) {
      if (!klt::isDictionary(*event)) return false;
      const auto found = event->find(it.key());
      if (found == event->end()) return false;
      const IdentityStep step = identityStep(it.value(), *found);
      if (step == IdentityStep::Pass) continue;
      if (step == IdentityStep::Descend) {
        nextEvent = &*found;
        nextData = &it.value();
        break;
      }
      return step == IdentityStep::DecideTrue;
    }
    if (nextData == nullptr) return true;
    event = nextEvent;
    data = nextData;
  }
}

bool KLTCEUtility::checkGivenVersion(const std::string& given, const KLTValue& op) {
  const std::optional<std::string> app = KLTBundle::shortVersionString();
  if (!app) return false;
  const Word word = KLTCEOperatorOf(op);
  if (word == Word::Other) return false;

  const std::vector<std::string_view> g = versionComponents(given);
  const std::vector<std::string_view> a = versionComponents(*app);
  if (word == Word::EQ || word == Word::NEQ) {
    const bool equal = g == a;  // component texts, exactly: 1.0 is not 1.00
    return word == Word::EQ ? equal : !equal;
  }

  // The orderings compare component integers over the given version's length only. "GT" and "LT"
  // keep scanning past a component that went against them; a scan that runs past the application's
  // last component has no defined outcome and yields false.
  for (std::size_t i = 0; i < g.size(); ++i) {
    if (i == a.size()) return false;
    const int32_t av = klt::parseInt32(a[i]);
    const int32_t gv = klt::parseInt32(g[i]);
    switch (word) {
      case Word::GT:
        if (av > gv) return true;
        break;
      case Word::GTE:
        if (av > gv) return true;
        if (av < gv) return false;
        break;
      case Word::LT:
        if (av < gv) return true;
        break;
      case Word::LTE:
        if (av < gv) return true;
        if (av > gv) return false;
        break;
      default:
        break;  // EQ, NEQ and unknown words were answered above
    }
  }
  return word == Word::GTE || word == Word::LTE;
}
