// Engine instances: creation over an environment, the bindings that make an instance's environment
// the one in effect where its work runs, and destruction.
#include <chrono>
#include <mutex>
#include <vector>

#include "KLTContextEvaluator/KLTCEConfigItem.h"
#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "KLTContextEvaluator/KLTMacroHelper.h"
#include "platform/KLTThreadSerialQueue.h"

namespace {

// The instance whose task or call is under way on this thread.
thread_local KLTContextEvaluator* boundEngine = nullptr;

constexpr std::chrono::seconds kTeardownWait{10};

// What instances whose queue a timer holds for good leave behind (see ~KLTContextEvaluator()).
std::vector<std::shared_ptr<const void>>& heldForGood() {
  static auto* held = new std::vector<std::shared_ptr<const void>>();
  return *held;
}
std::mutex& heldForGoodMutex() {
  static auto* m = new std::mutex();
  return *m;
}

}  // namespace

// What an instance's queue puts in effect around its tasks. It holds the engine by a plain pointer:
// the engine clears its queue's scope before it goes.
class KLTContextEvaluator::QueueScope final : public KLTSeamScope {
 public:
  explicit QueueScope(KLTContextEvaluator& engine) : engine_(engine) {}
  void within(const std::function<void()>& work) const override {
    CallScope scope(engine_);
    work();
  }

 private:
  KLTContextEvaluator& engine_;
};

KLTContextEvaluator::CallScope::CallScope(const KLTContextEvaluator& engine) {
  if (!engine.environment_) return;
  environment_.emplace(*engine.environment_);
  previousChannel_ = KLTCEDecisions::bound;
  previousEngine_ = boundEngine;
  KLTCEDecisions::bound = engine.channel_.get();
  boundEngine = const_cast<KLTContextEvaluator*>(&engine);
  bound_ = true;
}

KLTContextEvaluator::CallScope::~CallScope() {
  if (!bound_) return;
  KLTCEDecisions::bound = previousChannel_;
  boundEngine = previousEngine_;
}

std::shared_ptr<KLTContextEvaluator> KLTContextEvaluator::create(KLTEnvironment environment,
                                                                 std::shared_ptr<KLTSerialQueue> queue) {
  auto filled = KLTEnvironment::make(std::move(environment));
  if (!queue) queue = std::make_shared<KLTThreadSerialQueue>(kKLTCEOpsSerialQueue);
  // Bound during construction, so that the start-up line goes to the instance's own log.
  KLTEnvironment::Scope scope(*filled);
  std::shared_ptr<KLTContextEvaluator> engine(new KLTContextEvaluator(InstanceTag{}, std::move(filled), std::move(queue)));
  engine->_ceOpsSerialQueue->setSeamScope(std::make_shared<QueueScope>(*engine));
  return engine;
}

KLTContextEvaluator::KLTContextEvaluator(InstanceTag, std::shared_ptr<KLTEnvironment> environment,
                                         std::shared_ptr<KLTSerialQueue> queue)
    : KLTContextEvaluator(std::move(queue)) {
  environment_ = std::move(environment);
  channel_ = std::make_unique<KLTCEDecisions::Channel>();
}

KLTContextEvaluator::~KLTContextEvaluator() {
  if (!environment_) return;
  _ceOpsSerialQueue->async([this] {
    releaseAllItems();
    decisionObserver.reset();
  });
  if (!_ceOpsSerialQueue->waitUntilIdleFor(kTeardownWait)) {
    // A task holds the queue for good and may still use the rule objects, the observer and this
    // engine's environment: none of them may be freed under it. They stay reachable, for the rest
    // of the process, from a list nothing else reads.
    std::lock_guard lock(heldForGoodMutex());
    auto& held = heldForGood();
    held.push_back(_ceOpsSerialQueue);
    held.push_back(environment_);
    for (auto& item : retiredItems) held.push_back(std::move(item));
    for (auto& [id, item] : _configuration) held.push_back(std::move(item));
    held.push_back(std::move(decisionObserver));
    held.push_back(std::shared_ptr<KLTCEDecisions::Channel>(std::move(channel_)));
    return;
  }
  _ceOpsSerialQueue->setSeamScope(nullptr);
}

KLTContextEvaluator& KLTContextEvaluator::current() {
  KLTContextEvaluator* engine = boundEngine;
  return engine ? *engine : sharedInstance();
}

KLTContextEvaluator* KLTContextEvaluator::bound() { return boundEngine; }

void KLTContextEvaluator::releaseAllItems() {
  // Every task posted before this one has run, and once the host's registry forgets the listeners
  // nothing can reach the rule objects: their cycles can be broken and the objects freed.
  KLTController& controller = KLTController::current();
  controller.removeAllListeners();
  for (auto& [id, item] : _configuration) retiredItems.push_back(std::move(item));
  _configuration.clear();
  for (const auto& item : retiredItems) item->release();
  retiredItems.clear();
  controller.discardRemovedListeners();
}
