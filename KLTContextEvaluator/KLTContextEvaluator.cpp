#include "KLTContextEvaluator/KLTContextEvaluator.h"

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTMacroHelper.h"
#include "platform/KLTLog.h"

KLTContextEvaluator& KLTContextEvaluator::sharedInstance() {
  // A function-local static makes the first creation thread-safe; the instance is never destroyed
  // because queued tasks and listeners refer to it for the rest of the process.
  static KLTContextEvaluator* contextEvaluator = new KLTContextEvaluator(takeChosenQueue());
  return *contextEvaluator;
}

KLTContextEvaluator::KLTContextEvaluator(std::shared_ptr<KLTSerialQueue> queue)
    : macroHelper(std::make_unique<KLTMacroHelper>()),
      _ceOpsSerialQueue(std::move(queue)) {
  KLT_LOG_INFO("-[KLTContextEvaluator init]",
               "CE Plugin (" + std::to_string(kKLTContextEvalutorVersion) + ") - Initialized");
}

void KLTContextEvaluator::initialize(const KLTValue&) {}

bool KLTContextEvaluator::start() { return false; }

bool KLTContextEvaluator::stop() { return false; }

std::shared_ptr<KLTSerialQueue> KLTContextEvaluator::ceOpsSerialQueue() const {
  // Set once in the constructor and never replaced, so concurrent reads need no synchronisation.
  return _ceOpsSerialQueue;
}

std::optional<std::string> KLTContextEvaluator::replaceMacros(const KLTValue& text) const {
  CallScope scope(*this);  // runs on the caller's thread, with this engine's user and session
  return macroHelper->applyMacro(text);
}

std::vector<std::string> KLTContextEvaluator::configurationIdentifiers() const {
  std::vector<std::string> ids;
  ids.reserve(_configuration.size());
  for (const auto& [id, item] : _configuration) ids.push_back(id);
  return ids;
}

std::shared_ptr<KLTCEConfigItem> KLTContextEvaluator::configItemForIdentifier(const std::string& identifier) const {
  auto it = _configuration.find(identifier);
  return it == _configuration.end() ? nullptr : it->second;
}

void KLTContextEvaluator::setDecisionObserver(std::shared_ptr<KLTCEDecisionObserver> observer) {
  // Swapped on the queue, between two tasks: no record is being delivered to the previous observer,
  // which is released here once the task is done with it.
  _ceOpsSerialQueue->async([this, observer = std::move(observer)]() mutable {
    KLTCEDecisions::channel().installed.store(observer.get(), std::memory_order_release);
    decisionObserver.swap(observer);
  });
}
