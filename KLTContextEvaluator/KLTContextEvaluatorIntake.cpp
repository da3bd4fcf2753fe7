// Configuration intake: the parse of a campaign document and the count of a display, both run as
// tasks on the evaluator's serial queue.
#include <algorithm>

#include "KLTContextEvaluator/KLTCEConfigItem.h"
#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTLog.h"

namespace {

// A configuration's priority: its `prio` as a signed integer; 1 when absent.
int64_t priorityOf(const KLTValue& config) {
  const KLTValue& prio = klt::valueForKey(config, kKLTPriority);
  return prio.is_null() ? 1 : klt::integerValue(prio);
}

}  // namespace

void KLTContextEvaluator::parseConfiguration(KLTValue document) {
  auto shared = std::make_shared<KLTValue>(std::move(document));
  _ceOpsSerialQueue->async([this, shared] { parseTask(*shared); });
}

void KLTContextEvaluator::parseTask(KLTValue& document) {
  const auto found = document.find(kKLTConfigs);  // end() for a document that is not a dictionary
  if (found == document.end() || !found->is_array()) return;
  // Highest priority first, each priority read once; equal priorities keep their document order.
  std::vector<std::pair<int64_t, KLTValue*>> sorted;
  sorted.reserve(found->size());
  for (auto& config : *found) sorted.emplace_back(priorityOf(config), &config);
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (const auto& [priority, config] : sorted) {
    const KLTValue released = std::move(*config);  // items copy what they need: the document goes as it is read
    const KLTValue& id = klt::valueForKey(released, kKLTConfigId);
    if (!admitConfiguration(released, priority)) {
      KLT_LOG_INFO("-[KLTContextEvaluator parseConfiguration:]_block_invoke",
                   "Validation failed for config with id: " + klt::textForm(id));
      continue;
    }
    // A new item replaces the stored one; the old one stays registered with the host.
    auto item = KLTCEConfigItem::create(released);
    if (!item) continue;  // no text _id: nothing is built or stored
    std::shared_ptr<KLTCEConfigItem>& stored = _configuration[item->identifier()];
    if (stored) retiredItems.push_back(std::move(stored));
    stored = std::move(item);
  }
}

void KLTContextEvaluator::updateCountForConfigWithIdentifier(std::string identifier) {
  _ceOpsSerialQueue->async([this, identifier = std::move(identifier)] {
    auto it = _configuration.find(identifier);
    if (it == _configuration.end()) return;  // unknown id: nothing to count
    it->second->updateFrequencyForConfigItemWithIdentifier(identifier);
  });
}

bool KLTContextEvaluator::admitConfiguration(const KLTValue& config, int64_t priority) const {
  // The reason of a rejection is gathered only for an observer.
  if (!KLTCEDecisions::observer()) return checkConfiguration(config, nullptr);
  KLTCEAdmission admission;
  checkConfiguration(config, &admission);
  KLTCEDecisions::admission(klt::valueForKey(config, kKLTConfigId), priority, admission);
  return admission.admitted;
}
