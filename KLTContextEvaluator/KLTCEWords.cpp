#include "KLTContextEvaluator/KLTCEWords.h"

#include "KLTContextEvaluator/KLTCEConstants.h"

KLTCEOperator KLTCEOperatorOf(const KLTValue& word) {
  const std::string* s = klt::stringPtr(word);
  if (s == nullptr) return KLTCEOperator::Other;
  if (*s == kKLTOpEQ) return KLTCEOperator::EQ;
  if (*s == kKLTOpNEQ) return KLTCEOperator::NEQ;
  if (*s == kKLTOpGT) return KLTCEOperator::GT;
  if (*s == kKLTOpGTE) return KLTCEOperator::GTE;
  if (*s == kKLTOpLT) return KLTCEOperator::LT;
  if (*s == kKLTOpLTE) return KLTCEOperator::LTE;
  return KLTCEOperator::Other;
}

KLTCECombine KLTCECombineOf(const KLTValue& word) {
  if (klt::isText(word, kKLTAnd)) return KLTCECombine::And;
  if (klt::isText(word, kKLTOr)) return KLTCECombine::Or;
  return KLTCECombine::Other;
}

KLTCEEventKind KLTCEEventKindOf(const KLTValue& word) {
  if (klt::isText(word, kKLTAppEvent)) return KLTCEEventKind::AppEvent;
  if (klt::isText(word, kKLTClientEvent)) return KLTCEEventKind::ClientEvent;
  if (klt::isText(word, kKLTActivityEvent)) return KLTCEEventKind::ActivityEvent;
  if (klt::isText(word, kKLTIdleTime)) return KLTCEEventKind::IdleTime;
  if (klt::isText(word, kKLTActivityTime)) return KLTCEEventKind::ActivityTime;
  if (klt::isText(word, kKLTAppStart)) return KLTCEEventKind::AppStart;
  return KLTCEEventKind::Other;
}

KLTCEDisplayKind KLTCEDisplayKindOf(const KLTValue& word) {
  if (klt::isText(word, kKLTSurvey)) return KLTCEDisplayKind::Survey;
  if (klt::isText(word, kKLTInApp)) return KLTCEDisplayKind::InApp;
  if (klt::isText(word, kKLTInLine)) return KLTCEDisplayKind::InLine;
  return KLTCEDisplayKind::None;
}
