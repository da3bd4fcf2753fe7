// The reset of the engine between independent inputs (tests and fuzzing only).
#include "KLTContextEvaluator/KLTCEConfigItem.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"

bool KLTContextEvaluator::resetForTesting(std::chrono::milliseconds timeout) {
  _ceOpsSerialQueue->async([this] {
    // Every task posted before this one has run, and once the host's registry forgets the
    // listeners nothing can reach the rule objects: their cycles can be broken and the objects
    // freed, so that a process replaying a million devices holds only the present one's.
    KLTController::sharedController().removeAllListeners();
    for (auto& [id, item] : _configuration) retiredItems.push_back(std::move(item));
    _configuration.clear();
    for (const auto& item : retiredItems) item->release();
    retiredItems.clear();
    KLTController::sharedController().discardRemovedListeners();
  });
  return _ceOpsSerialQueue->waitUntilIdleFor(timeout);
}
