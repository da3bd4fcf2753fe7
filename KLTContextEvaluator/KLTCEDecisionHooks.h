// The engine's side of decision records: where each decision is reported, and the one pointer test
// that makes the reports free when no observer is installed.
//
// Each hook is an inline test of the installed observer; only when one is installed does it call
// the out-of-line builder (KLTCEDecisionHooks.cpp), which reads the deciding object and the values
// it compared, builds the record and hands it over. Builders read; they never change an object, a
// counter, the store or the log. Called on the evaluator's serial queue (where the rule objects
// live).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "KLTContextEvaluator/KLTCEDecision.h"
#include "host/KLTEvent.h"

class KLTCEConfigItem;
class KLTCECondition;
class KLTCETrigger;
class KLTDisplayEvent;

// Which campaign and which of its conditions a condition or trigger belongs to, given at creation.
struct KLTCEDecisionSource {
  std::string campaign;
  int64_t condition = -1;
};

namespace KLTCEDecisions {

// Where one engine's records go: its installed observer (nullptr: none), written by
// KLTContextEvaluator::setDecisionObserver() from a task on its serial queue, and the sequence
// number of its last record. Each engine instance has its own; the shared instance's is process-wide.
struct Channel {
  std::atomic<KLTCEDecisionObserver*> installed{nullptr};
  std::atomic<uint64_t> sequence{0};
};
// The shared instance's channel.
extern Channel shared;
// The channel of the engine whose task runs on this thread (set by the engine's bindings); nullptr
// for the shared instance.
inline thread_local Channel* bound = nullptr;
inline Channel& channel() { return bound ? *bound : shared; }
inline KLTCEDecisionObserver* observer() { return channel().installed.load(std::memory_order_acquire); }

namespace detail {
void admission(const KLTValue& id, int64_t priority, const KLTCEAdmission& admission);
void itemBuilt(const KLTCEConfigItem& item);
void triggerFired(const KLTCEDecisionSource& source, const KLTCETrigger& trigger, const KLTEvent* event);
void conditionArmed(const KLTCEDecisionSource& source, const KLTCECondition& condition);
void timerEnded(const KLTCEDecisionSource& source, const KLTCECondition& condition);
void eventCounted(const KLTCEDecisionSource& source, const KLTCECondition& condition, const KLTEvent& event,
                  bool countHeld, bool completed);
void foldEvaluated(const KLTCEConfigItem& item, bool result);
void windowClosed(const KLTCEConfigItem& item);
void capBlocked(const KLTCEConfigItem& item);
void dispatched(const KLTCEConfigItem& item, const KLTDisplayEvent& event);
void displayCounted(const KLTCEConfigItem& item, const std::string& identifier);
}  // namespace detail

// One configuration's admission (the parse asks for a reason only when an observer is installed).
inline void admission(const KLTValue& id, int64_t priority, const KLTCEAdmission& a) {
  if (observer()) detail::admission(id, priority, a);
}
// An item about to build its conditions (listed in the order it uses them).
inline void itemBuilt(const KLTCEConfigItem& item) {
  if (observer()) detail::itemBuilt(item);
}
// A trigger calling its arming callback; event is nullptr for "app_start".
inline void triggerFired(const KLTCEDecisionSource& source, const KLTCETrigger& trigger, const KLTEvent* event) {
  if (observer()) detail::triggerFired(source, trigger, event);
}
inline void conditionArmed(const KLTCEDecisionSource& source, const KLTCECondition& condition) {
  if (observer()) detail::conditionArmed(source, condition);
}
inline void timerEnded(const KLTCEDecisionSource& source, const KLTCECondition& condition) {
  if (observer()) detail::timerEnded(source, condition);
}
// A matching event counted (count already raised), with the outcome of the count and time checks.
inline void eventCounted(const KLTCEDecisionSource& source, const KLTCECondition& condition, const KLTEvent& event,
                         bool countHeld, bool completed) {
  if (observer()) detail::eventCounted(source, condition, event, countHeld, completed);
}
// The fold of a combined item's conditions; returns result unchanged.
inline bool foldEvaluated(const KLTCEConfigItem& item, bool result) {
  if (observer()) detail::foldEvaluated(item, result);
  return result;
}
inline void windowClosed(const KLTCEConfigItem& item) {
  if (observer()) detail::windowClosed(item);
}
inline void capBlocked(const KLTCEConfigItem& item) {
  if (observer()) detail::capBlocked(item);
}
inline void dispatched(const KLTCEConfigItem& item, const KLTDisplayEvent& event) {
  if (observer()) detail::dispatched(item, event);
}
inline void displayCounted(const KLTCEConfigItem& item, const std::string& identifier) {
  if (observer()) detail::displayCounted(item, identifier);
}

}  // namespace KLTCEDecisions

// The values an admission step compared, for the reason of a rejection (read afresh from the host;
// called only when a reason is asked for).
namespace KLTCEAdmissionFacts {
// {hw_val, device_model}
KLTValue hardware(const KLTValue& wanted);
// {app_version (null when unknown), operator, wanted (its text form)}
KLTValue version(const KLTValue& wanted, const KLTValue& op);
// {rule, host_value}: the first rule of the list that fails against the host's attributes, and
// the host's value under its name (null when absent).
KLTValue mismatch(const KLTValue& rules, const std::shared_ptr<const KLTValue>& attributes);
// {now (epoch ms), start_date, end_date}
KLTValue dates(const KLTValue& validity);
}  // namespace KLTCEAdmissionFacts
