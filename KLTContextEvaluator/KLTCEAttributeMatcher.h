// KLTCEAttributeMatcher: the attribute data of a condition or a trigger (`details.additional_info`),
// read once when its configuration is compiled, and matched against each event that reaches the
// rule through the event's attribute index (KLTEvent::attributes()): one hash probe per key of the
// data, no second reading of typed rules or operator words.
//
// Two readings of the data, as the rules define them:
// - a condition's (forCondition): every key of the data must pass; a plain text or number asks for
//   that value (a list attribute passes when it contains it), a typed rule {"t","op","val"} compares
//   as a text ("s"), a truth ("b") or an integer ("l", "n"); other type letters leave the key out,
//   and an "l"/"n" rule whose "val" is not a number fails every event. The answers are
//   KLTCEUtility::doesEventAttributes()'s.
// - a trigger's (forTrigger): keys in document order, a key the event lacks fails, texts and numbers
//   must be identical, and the first key holding a dictionary or a list on both sides decides the
//   whole result. The answers are KLTCEUtility::doesDictionary()'s.
// Data that is not a dictionary asks for nothing. Immutable once built; may be read from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTCEWords.h"
#include "host/KLTEvent.h"
#include "platform/KLTKeyIndex.h"
#include "platform/KLTValue.h"

class KLTCEAttributeMatcher {
 public:
  // Asks for nothing: every event matches.
  KLTCEAttributeMatcher() = default;
  static KLTCEAttributeMatcher forCondition(const KLTValue& data);
  static KLTCEAttributeMatcher forTrigger(const KLTValue& data);

  bool matches(const KLTEvent& event) const { return !failingKey(event.attributes()); }
  // The same against attributes given as a value (any value).
  bool matches(const KLTValue& attributes) const { return !failingKey(klt::KLTKeyIndex(attributes)); }

  // The key of the data whose rule the attributes fail (the first one, in the data's order), or
  // nothing when they match. For a trigger whose nested dictionary or list decided against the
  // event, the key that holds it. "" when the data can match no event at all.
  std::optional<std::string> failingKey(const klt::KLTKeyIndex& attributes) const;

 private:
  enum class Check : uint8_t { Text, Truth, Number, Identity };
  struct Rule {
    klt::HashedKey key;
    Check check = Check::Text;
    KLTCEOperator word = KLTCEOperator::EQ;
    KLTValue value;      // Text: the value asked for; Identity: the trigger data under the key
    int64_t number = 0;  // Number: the integer asked for; Truth: 1 or 0
  };

  std::vector<Rule> rules_;
  bool never_ = false;  // a typed number rule without a number: no event passes
};
