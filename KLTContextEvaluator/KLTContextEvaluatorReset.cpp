// The reset of the engine between independent inputs (tests and fuzzing only).
#include "KLTContextEvaluator/KLTCEConfigItem.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"

bool KLTContextEvaluator::resetForTesting(std::chrono::milliseconds timeout) {
  _ceOpsSerialQueue->async([this] {
    // Kept, not destroyed: conditions and their triggers hold each other for good, and a task
    // still posted for one of them must find it alive.
    for (auto& [id, item] : _configuration) retiredItems.push_back(std::move(item));
    _configuration.clear();
    KLTController::sharedController().removeAllListeners();
  });
  return _ceOpsSerialQueue->waitUntilIdleFor(timeout);
}
