#include "KLTContextEvaluator/KLTCEAttributeMatcher.h"

#include <string_view>

#include "KLTContextEvaluator/KLTCEUtility.h"

namespace {

// The literal keys of a typed attribute rule.
constexpr std::string_view kTypedType = "t";
constexpr std::string_view kTypedOperator = "op";
constexpr std::string_view kTypedValue = "val";

// Whether the text equals the one-character type letter of a typed rule.
bool isLetter(const std::string* text, char letter) { return text != nullptr && text->size() == 1 && (*text)[0] == letter; }

const KLTValue& absent() {
  static const KLTValue kNull;
  return kNull;
}

}  // namespace

KLTCEAttributeMatcher KLTCEAttributeMatcher::forCondition(const KLTValue& data) {
  KLTCEAttributeMatcher m;
  if (!klt::isDictionary(data)) return m;
  for (auto it = data.begin(); it != data.end(); ++it) {
    const KLTValue& x = it.value();
    if (klt::isDictionary(x)) {
      const std::string* type = klt::stringPtr(klt::valueForKey(x, kTypedType));
      const KLTCEOperator word = KLTCEOperatorOf(klt::valueForKey(x, kTypedOperator));
      const KLTValue& val = klt::valueForKey(x, kTypedValue);
      if (isLetter(type, 's')) {
        m.rules_.push_back({klt::HashedKey(it.key()), Check::Text, word, val});
      } else if (isLetter(type, 'b')) {
        m.rules_.push_back({klt::HashedKey(it.key()), Check::Truth, word, {}, klt::boolValue(val) ? 1 : 0});
      } else if (isLetter(type, 'l') || isLetter(type, 'n')) {
        if (!klt::isNumber(val)) m.never_ = true;
        m.rules_.push_back({klt::HashedKey(it.key()), Check::Number, word, {}, klt::integerValue(val)});
      }
      // Any other type letter, or none, leaves the key out of the match.
    } else if (klt::isString(x)) {
      m.rules_.push_back({klt::HashedKey(it.key()), Check::Text, KLTCEOperator::EQ, x});
    } else if (klt::isNumber(x)) {
      // The data number is read as a floating number first, so 3.7 asks for 3 and a huge integer
      // saturates rather than wrapping.
      m.rules_.push_back({klt::HashedKey(it.key()), Check::Number, KLTCEOperator::EQ, {},
                          klt::integerValue(KLTValue(klt::doubleValue(x)))});
    }
  }
  return m;
}

KLTCEAttributeMatcher KLTCEAttributeMatcher::forTrigger(const KLTValue& data) {
  KLTCEAttributeMatcher m;
  if (!klt::isDictionary(data)) return m;
  for (auto it = data.begin(); it != data.end(); ++it) {
    m.rules_.push_back({klt::HashedKey(it.key()), Check::Identity, KLTCEOperator::EQ, it.value()});
  }
  return m;
}

std::optional<std::string> KLTCEAttributeMatcher::failingKey(const klt::KLTKeyIndex& attributes) const {
  if (never_) return std::string();
  using Step = KLTCEUtility::IdentityStep;
  for (const Rule& rule : rules_) {
    const KLTValue* found = attributes.find(rule.key);
    bool passes = false;
    switch (rule.check) {
      case Check::Text:
        passes = KLTCEUtility::checkString(rule.value, found ? *found : absent(), rule.word);
        break;
      case Check::Truth:
        passes = KLTCEUtility::checkBool(rule.number != 0, found && klt::boolValue(*found), rule.word);
        break;
      case Check::Number:
        passes = KLTCEUtility::checkAttrValue(found ? *found : absent(), rule.number, rule.word);
        break;
      case Check::Identity: {
        if (!found) return rule.key.text;  // also when the attributes are not a dictionary
        const Step step = KLTCEUtility::identityStep(rule.value, *found);
        if (step == Step::Pass) continue;
        const bool holds = step == Step::DecideTrue ||
                           (step == Step::Descend && KLTCEUtility::doesDictionary(*found, rule.value));
        if (holds) return std::nullopt;
        return rule.key.text;
      }
    }
    if (!passes) return rule.key.text;
  }
  return std::nullopt;
}
