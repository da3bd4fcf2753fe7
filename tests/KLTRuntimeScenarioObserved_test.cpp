// The runtime scenarios again, with a decision observer installed for the whole run: each scenario
// must pass unchanged (the same dispatches and log lines it checks without one), and records must
// keep coming with rising sequence numbers.
#include <atomic>

#include "KLTContextEvaluator/KLTCEDecision.h"

#define RuntimeScenario RuntimeScenarioObserved
#include "KLTRuntimeScenario_test.cpp"
#undef RuntimeScenario

namespace {

class CountingObserver final : public KLTCEDecisionObserver {
 public:
  void onDecision(const KLTCEDecision& d) override {
    // One scenario arms a condition on a thread of its own; elsewhere records come on the queue.
    uint64_t last = lastSequence.exchange(d.sequence);
    if (d.sequence <= last) ++outOfOrder;
    ++records;
  }
  std::atomic<uint64_t> lastSequence{0};
  std::atomic<int> records{0};
  std::atomic<int> outOfOrder{0};
};

class ObserverEnvironment final : public ::testing::Environment {
 public:
  void SetUp() override {
    KLTContextEvaluator::sharedInstance().setDecisionObserver(observer_);
    KLTContextEvaluator::sharedInstance().ceOpsSerialQueue()->waitUntilIdle();
  }
  void TearDown() override {
    EXPECT_GT(observer_->records.load(), 0) << "every scenario makes decisions";
    EXPECT_EQ(observer_->outOfOrder.load(), 0);
  }

 private:
  std::shared_ptr<CountingObserver> observer_ = std::make_shared<CountingObserver>();
};

[[maybe_unused]] ::testing::Environment* const kObserved = ::testing::AddGlobalTestEnvironment(new ObserverEnvironment);

}  // namespace
