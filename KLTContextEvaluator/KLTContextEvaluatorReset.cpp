// The reset of the engine between independent inputs (tests and fuzzing only).
#include "KLTContextEvaluator/KLTContextEvaluator.h"

bool KLTContextEvaluator::resetForTesting(std::chrono::milliseconds timeout) {
  _ceOpsSerialQueue->async([this] { releaseAllItems(); });
  return _ceOpsSerialQueue->waitUntilIdleFor(timeout);
}
