// KLTCEUtility: the stateless comparisons of the rules engine: operator words on scalars, truth
// combination, time bounds, attribute-set matching and version comparison.
//
// Operator words ("EQ", "NEQ", "GT", "GTE", "LT", "LTE"; "AND", "OR") are matched exactly and
// case-sensitively; a missing or non-text operator matches none. Values of any kind are accepted
// everywhere: what an operation does not recognise yields the result its comment states, never a
// crash or an exception. Every operation is pure (checkGivenVersion also reads the application's
// version from KLTBundle) and may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTCEWords.h"
#include "platform/KLTValue.h"

class KLTCEUtility {
 public:
  KLTCEUtility() = delete;

  // --- Scalars ---
  // "EQ": a == b; "NEQ": a != b; anything else false.
  static bool checkBool(bool a, bool b, const KLTValue& op);
  // The six words on signed a and b ("GT" is a > b); anything else false.
  static bool checkValue(int64_t a, int64_t b, const KLTValue& op);
  // s: expected value; v: actual value. v a list: "EQ" contained / "NEQ" not contained; v a string:
  // "EQ" equal / "NEQ" different; any other v (missing included) or word: false.
  static bool checkString(const KLTValue& s, const KLTValue& v, const KLTValue& op);
  // v: attribute value; g: given integer. v a list: "EQ" contains a number equal to g / "NEQ" does
  // not; v a number: the six words on (integer reading of v, g); anything else false.
  static bool checkAttrValue(const KLTValue& v, int64_t g, const KLTValue& op);
  // "AND": x && y; "OR": x || y; anything else false.
  static bool evaluateConditionStatus(bool x, bool y, const KLTValue& op);
  // lower <= t <= upper.
  static bool checkGivenTime(int64_t t, int64_t lower, int64_t upper);

  // The same checks with the operator word already read (KLTCEWords.h): what a compiled rule calls.
  static bool checkBool(bool a, bool b, KLTCEOperator op);
  static bool checkValue(int64_t a, int64_t b, KLTCEOperator op) { return KLTCECompare(a, b, op); }
  static bool checkString(const KLTValue& s, const KLTValue& v, KLTCEOperator op);
  static bool checkAttrValue(const KLTValue& v, int64_t g, KLTCEOperator op);

  // --- Attribute sets ---
  // One audience rule {"name","value","operator"} against the host's attribute dictionary. Holds
  // when the host lacks the name, when the host value is a dictionary or null, and for a host text
  // or number under any word but "EQ"/"NEQ"; a list host value goes to doesArray(). A "value" that
  // is neither a list nor missing fails "EQ" and "NEQ".
  static bool compareGivenAttributes(const KLTValue& rule, const KLTValue& existing);
  // "EQ": every element of b is in a; "NEQ": none is; any other word true. A missing b asks for
  // nothing (true); any other non-list b fails "EQ" and "NEQ". A non-list a contains nothing.
  static bool doesArray(const KLTValue& a, const KLTValue& b, const KLTValue& op);
  // An event's attributes against a condition's attribute data (plain values and typed rules
  // {"t","op","val"}): every key of the data must pass; data that is not a dictionary asks for
  // nothing. A typed "l"/"n" rule whose "val" is not a number fails its key.
  static bool doesEventAttributes(const KLTValue& eventAttributes, const KLTValue& data);
  // An event's attributes (a) against a trigger's attribute data (b), keys of b in document order;
  // the first nested dictionary or list decides the whole result. A key absent from a fails; a key
  // present with null is passed over. Numbers match when of the same kind (boolean, integer,
  // floating) and equal. Iterative: any nesting depth is safe.
  static bool doesDictionary(const KLTValue& a, const KLTValue& b);
  // One key of trigger data (x) against the event's value under it (y), as doesDictionary() reads
  // it: the key passes, fails, decides the whole result, or hands it to the nested dictionaries.
  enum class IdentityStep { Pass, Fail, DecideTrue, DecideFalse, Descend };
  static IdentityStep identityStep(const KLTValue& x, const KLTValue& y);

  // --- Versions ---
  // The application's version (KLTBundle) against the given one under the operator: equality by
  // component text, orderings by component integers. False when the application's version is
  // missing or the scan would read past its last component.
  static bool checkGivenVersion(const std::string& given, const KLTValue& op);
};
