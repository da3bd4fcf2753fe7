#include "KLTContextEvaluator/KLTCEDocument.h"

#include <algorithm>

#include "KLTContextEvaluator/KLTCEConstants.h"

std::shared_ptr<const KLTCEDocument> KLTCEDocument::compile(std::shared_ptr<const KLTValue> document) {
  auto compiled = std::make_shared<KLTCEDocument>();
  compiled->json_ = document ? std::move(document) : std::make_shared<const KLTValue>();
  const KLTValue& configs = klt::valueForKey(*compiled->json_, kKLTConfigs);
  if (!configs.is_array()) return compiled;
  compiled->entries_.reserve(configs.size());
  for (const KLTValue& config : configs) {
    const KLTValue& prio = klt::valueForKey(config, kKLTPriority);
    compiled->entries_.push_back({&config, prio.is_null() ? 1 : klt::integerValue(prio), KLTCECampaign::compile(config)});
  }
  // The order of the engine's parse of the same document (KLTContextEvaluatorIntake.cpp).
  std::stable_sort(compiled->entries_.begin(), compiled->entries_.end(),
                   [](const Entry& a, const Entry& b) { return a.priority > b.priority; });
  return compiled;
}
