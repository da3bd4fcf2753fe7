// KLTCEConfigItem: the run-time form of one admitted campaign, built from its compiled form
// (KLTCECampaign.h). It builds the campaign's conditions, combines their results when one
// completes, applies the daily time window and (in combined mode) the frequency cap, and
// dispatches the display event to the host.
//
// Combined mode (`sequence_enabled` false): all conditions are built at once; every completion
// folds their `satisfied` flags strictly left to right with each later condition's combine
// operator ("AND"/"OR"; anything else makes the fold false), with no short-circuit.
// Sequence mode: conditions sorted by `sequence` (stable) and built one at a time, each when the
// previous one completes; after the last, the window is checked and the campaign dispatched
// without the cap check.
//
// Thread-safety: built and used only on the evaluator's serial queue. Ownership: created with
// create(); held by the evaluator's table and by its conditions' callbacks, so it lives (and its
// conditions stay registered) for the rest of the process.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTCECampaign.h"
#include "KLTContextEvaluator/KLTCECondition.h"
#include "KLTContextEvaluator/KLTCEDecisionHooks.h"
#include "KLTContextEvaluator/KLTCEFrequency.h"
#include "platform/KLTValue.h"

class KLTCEConfigItem final : public std::enable_shared_from_this<KLTCEConfigItem> {
 public:
  // Builds the item of a compiled campaign (never nullptr for a campaign). In sequence mode with no
  // conditions the campaign is dispatched (window permitting) before create() returns.
  static std::shared_ptr<KLTCEConfigItem> create(std::shared_ptr<const KLTCECampaign> campaign);
  // Compiles an admitted configuration and builds its item. A configuration without a text `_id`
  // builds nothing: nullptr, with one ERROR line.
  static std::shared_ptr<KLTCEConfigItem> create(const KLTValue& config);

  // Combined mode: folds the conditions and dispatches when the result, the window and the cap allow.
  void checkAllConditions();
  // The cap: whether the frequency object allows one more showing; logs "Action count limit
  // exceeded" (INFO) when not.
  bool checkCountAndValidity();
  // Counts one showing in the persisted counters.
  void updateFrequencyForConfigItemWithIdentifier(const std::string& identifier);
  // Builds and hands to the host the display event of this type (SURVEY, IN_APP, IN_LINE); None
  // dispatches nothing.
  void dispatchEventWithType(KLTCEDisplayKind type);

  const std::string& identifier() const { return campaign_->identifier(); }
  const KLTCECampaign& campaign() const { return *campaign_; }
  // Combined mode: every condition in document order. Sequence mode: empty.
  const std::vector<std::shared_ptr<KLTCECondition>>& conditions() const { return _conditions; }
  const KLTCEFrequency& frequency() const { return *_frequency; }
  // Nothing when no daily window applies.
  const KLTCETimeLimits* timeLimits() const { return _timeLimits.get(); }
  // The display type: the `type` of the campaign's meta (null when absent).
  const KLTValue& displayType() const { return campaign_->displayType(); }
  // Releases its conditions (KLTCECondition::release()) and lets go of them, so that the item and
  // its rule objects are freed with the last outside reference. Only once nothing can deliver to
  // them any more (the engine's reset); on the serial queue.
  void release();

 private:
  struct Token {};

 public:
  KLTCEConfigItem(Token, std::shared_ptr<const KLTCECampaign> campaign);

 private:
  void buildConditions();
  void conditionCompleted(std::size_t position);
  void loadItemAtPosition(std::size_t position);
  std::shared_ptr<KLTCECondition> makeCondition(std::size_t position, std::function<void()> completion);

  std::shared_ptr<const KLTCECampaign> campaign_;
  std::unique_ptr<KLTCEFrequency> _frequency;
  std::unique_ptr<KLTCETimeLimits> _timeLimits;
  std::vector<std::shared_ptr<KLTCECondition>> _conditions;
  // Combined mode, beside _conditions for the fold, which runs at every completion: whether each
  // condition is satisfied (set when it completes, as its own flag is) and its combine word.
  std::vector<uint8_t> satisfied_;
  std::vector<KLTCECombine> combine_;
  // Sequence mode: every condition built so far. Nothing reads them here; holding them keeps a
  // condition that never registered with the host (a timer) reachable for the life of the item.
  std::vector<std::shared_ptr<KLTCECondition>> sequenceConditions;
};
