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
  auto owned = std::make_shared<KLTValue>(std::move(document));
  _ceOpsSerialQueue->async([this, owned] { parseTask(owned.get(), *owned); });
}

// A shared document is only read: the items built from it copy what they need, as from an owned
// one, so the caller may hand the same document to any number of parses.
void KLTContextEvaluator::parseConfiguration(std::shared_ptr<const KLTValue> document) {
  static const KLTValue kEmpty;
  _ceOpsSerialQueue->async([this, document = std::move(document)] { parseTask(nullptr, document ? *document : kEmpty); });
}

// One configuration of a parse: a rejected one is logged with its id; an admitted one becomes the
// item stored under its id.
void KLTContextEvaluator::parseOne(const KLTValue& config, int64_t priority, std::shared_ptr<const KLTCECampaign> compiled) {
  const KLTValue& id = klt::valueForKey(config, kKLTConfigId);
  if (!admitConfiguration(config, priority)) {
    KLT_LOG_INFO("-[KLTContextEvaluator parseConfiguration:]_block_invoke",
                 "Validation failed for config with id: " + klt::textForm(id));
    return;
  }
  // A new item replaces the stored one; the old one stays registered with the host.
  auto item = compiled ? KLTCEConfigItem::create(std::move(compiled)) : KLTCEConfigItem::create(config);
  if (!item) return;  // no text _id: nothing is built or stored
  std::shared_ptr<KLTCEConfigItem>& stored = _configuration[item->identifier()];
  if (stored) retiredItems.push_back(std::move(stored));
  stored = std::move(item);
}

void KLTContextEvaluator::parseTask(KLTValue* owned, const KLTValue& document) {
  const KLTValue& configs = klt::valueForKey(document, kKLTConfigs);  // null for a document that is not a dictionary
  if (!configs.is_array()) return;
  // Highest priority first, each priority read once; equal priorities keep their document order.
  std::vector<std::pair<int64_t, std::size_t>> sorted;
  sorted.reserve(configs.size());
  for (std::size_t i = 0; i < configs.size(); ++i) sorted.emplace_back(priorityOf(configs[i]), i);
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  // An owned document goes as it is read, so that a large one is not held twice.
  KLTValue* ownedConfigs = owned ? &(*owned)[kKLTConfigs] : nullptr;
  for (const auto& [priority, index] : sorted) {
    if (!ownedConfigs) {
      parseOne(configs[index], priority);
      continue;
    }
    const KLTValue released = std::move((*ownedConfigs)[index]);
    parseOne(released, priority);
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

// The same parse as of the document's JSON, each configuration admitted afresh but built from the
// campaign compiled once for every parse.
void KLTContextEvaluator::parseConfiguration(std::shared_ptr<const KLTCEDocument> document) {
  if (!document) document = KLTCEDocument::compile(nullptr);
  _ceOpsSerialQueue->async([this, document = std::move(document)] {
    for (const KLTCEDocument::Entry& entry : document->entries()) parseOne(*entry.config, entry.priority, entry.campaign);
  });
}
