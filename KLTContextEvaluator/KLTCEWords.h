// The words of a campaign document as the engine reads them, once, when a configuration is compiled:
// operators, combine words, rule event types and display types. Each word is matched exactly and
// case-sensitively; anything else (another text, a number, nothing) is the `Other`/`None` member,
// which every rule treats as its text says (a false check, a fold that is false, a rule that never
// registers, a display type that dispatches nothing).
//
// Pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/KLTValue.h"

// "EQ", "NEQ", "GT", "GTE", "LT", "LTE".
enum class KLTCEOperator : uint8_t { EQ, NEQ, GT, GTE, LT, LTE, Other };
// "AND", "OR".
enum class KLTCECombine : uint8_t { And, Or, Other };
// The `event_type` of a condition or trigger.
enum class KLTCEEventKind : uint8_t { AppEvent, ClientEvent, ActivityEvent, IdleTime, ActivityTime, AppStart, Other };
// The `meta.type` of a campaign.
enum class KLTCEDisplayKind : uint8_t { Survey, InApp, InLine, None };

KLTCEOperator KLTCEOperatorOf(const KLTValue& word);
KLTCECombine KLTCECombineOf(const KLTValue& word);
KLTCEEventKind KLTCEEventKindOf(const KLTValue& word);
KLTCEDisplayKind KLTCEDisplayKindOf(const KLTValue& word);

// The six words on signed integers ("GT" is a > b); Other is false.
constexpr bool KLTCECompare(int64_t a, int64_t b, KLTCEOperator op) {
  switch (op) {
    case KLTCEOperator::EQ: return a == b;
    case KLTCEOperator::NEQ: return a != b;
    case KLTCEOperator::GT: return a > b;
    case KLTCEOperator::GTE: return a >= b;
    case KLTCEOperator::LT: return a < b;
    case KLTCEOperator::LTE: return a <= b;
    case KLTCEOperator::Other: break;
  }
  return false;
}

// "AND": x && y; "OR": x || y; Other: false.
constexpr bool KLTCECombineFlags(bool x, bool y, KLTCECombine combine) {
  switch (combine) {
    case KLTCECombine::And: return x && y;
    case KLTCECombine::Or: return x || y;
    case KLTCECombine::Other: break;
  }
  return false;
}
