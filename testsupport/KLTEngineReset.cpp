#include "testsupport/KLTEngineReset.h"

#include "KLTContextEvaluator/KLTContextEvaluator.h"

struct KLTContextEvaluatorTestAccess {
  static bool reset(KLTContextEvaluator& engine, std::chrono::milliseconds timeout) {
    engine._ceOpsSerialQueue->async([&engine] { engine.releaseAllItems(); });
    return engine._ceOpsSerialQueue->waitUntilIdleFor(timeout);
  }
};

bool KLTResetEngine(KLTContextEvaluator& engine, std::chrono::milliseconds timeout) {
  return KLTContextEvaluatorTestAccess::reset(engine, timeout);
}
