// Engine instances over environments of their own: each reads its own clock, store, log, host
// controller, application version and device facts, never the process's, on its queue and in the
// calls that run on the caller's thread; a compiled document parses as its JSON does; an instance
// that goes frees what it built and stops delivering to it.
#include <gtest/gtest.h>

#include <memory>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEDocument.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTVirtualClock.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTCapturedLog.h"

using namespace kltfixture;

namespace {

// One device: an engine on a queue the test drains, over an environment whose every part the test
// holds.
struct Device {
  explicit Device(const std::string& model, const std::string& version = "2.0.0") {
    environment.clock = std::make_shared<KLTVirtualClock>(KLTTimePoint(std::chrono::seconds(1'795'000'000)));  // 2026-11-18
    environment.logSink = log;
    environment.logLevel = std::make_shared<std::atomic<long>>(0);
    environment.bundle = std::make_shared<KLTBundle>();
    environment.bundle->setVersion(version);
    environment.device = std::make_shared<KLTDeviceFacts>();
    environment.device->setDeviceName(model);
    environment.controller = std::make_shared<KLTController>();
    environment.controller->setDispatchHandler([this](std::shared_ptr<KLTDisplayEvent> e) {
      dispatched.push_back(klt::textForm(klt::valueForKey(e->info(), "id")));
    });
    engine = KLTContextEvaluator::create(environment, queue);
  }
  void drain() { ASSERT_TRUE(queue->drain()); }

  std::shared_ptr<KLTCapturedLog> log = std::make_shared<KLTCapturedLog>();
  std::shared_ptr<KLTDrainedSerialQueue> queue = std::make_shared<KLTDrainedSerialQueue>("device");
  KLTEnvironment environment;
  std::vector<std::string> dispatched;
  std::shared_ptr<KLTContextEvaluator> engine;
};

// A campaign shown on two "buy" app events, for devices of one model.
KLTValue buyTwice(const std::string& id, const std::string& model) {
  KLTValue c = campaign(id, KLTValue::array({eventCondition("app_event", "buy", "GTE", 2)}));
  c["audience"]["hw"] = {{"val", model}};
  return c;
}

TEST(KLTContextEvaluatorInstance, EachEngineReadsOnlyItsOwnEnvironment) {
  KLTScopedLogCapture process(0);  // what reaches the process's log
  Device a("iPhone14,2"), b("Pixel 8");
  const KLTValue doc = document({buyTwice("for-iphone", "iPhone14,2"), buyTwice("for-pixel", "Pixel 8")});
  a.engine->parseConfiguration(doc);
  b.engine->parseConfiguration(std::make_shared<const KLTValue>(doc));
  a.drain();
  b.drain();
  // Admission read each engine's own device facts.
  EXPECT_EQ(a.engine->configurationIdentifiers(), std::vector<std::string>{"for-iphone"});
  EXPECT_EQ(b.engine->configurationIdentifiers(), std::vector<std::string>{"for-pixel"});

  // Events reach only the engine whose controller receives them.
  for (int i = 0; i < 2; ++i) a.environment.controller->deliverEvent(KLTEvent::make(kKLTEventCodeApp, "buy", KLTValue::object()));
  a.drain();
  b.drain();
  EXPECT_EQ(a.dispatched, std::vector<std::string>{"for-iphone"});
  EXPECT_TRUE(b.dispatched.empty());

  // Every line went to the engine's own log, the start-up line included; none to the process's.
  EXPECT_EQ(a.log->count("CE Plugin"), 1);
  EXPECT_EQ(a.log->count("Hardware Model check failed"), 1);
  EXPECT_EQ(b.log->count("Hardware Model check failed"), 1);
  EXPECT_TRUE(process.log().lines().empty());

  // Counters are in the engine's own store (one it was given none of: a memory store of its own).
  const auto storeA = a.engine->environment()->store, storeB = b.engine->environment()->store;
  ASSERT_TRUE(storeA && storeB);
  EXPECT_NE(storeA, storeB);
  EXPECT_NE(storeA->objectForKey(kKLTFrequencyStoreKey).dump().find("for-iphone"), std::string::npos);
  EXPECT_EQ(storeB->objectForKey(kKLTFrequencyStoreKey).dump().find("for-iphone"), std::string::npos);
}

// Calls that run on the caller's thread read the engine's host, not the process's.
TEST(KLTContextEvaluatorInstance, CallerThreadCallsReadTheEnginesHost) {
  Device a("iPhone14,2", "3.1.9");
  a.environment.controller->user()->setCustomInfo(KLTValue{{"first_name", "Ada"}});
  KLTController::sharedController().user()->setCustomInfo(KLTValue{{"first_name", "Process"}});
  EXPECT_EQ(a.engine->replaceMacros("Hi [user_first_name(there)]"), "Hi Ada");

  struct Row {
    const char* note;
    KLTValue audience;
    bool admitted;
  };
  const Row rows[] = {
      {"the engine's model", KLTValue{{"hw", {{"val", "iPhone14,2"}}}}, true},
      {"another model", KLTValue{{"hw", {{"val", "Pixel 8"}}}}, false},
      {"the engine's app version", KLTValue{{"ver", {{"val", "3.1"}, {"op", "GTE"}}}}, true},
      {"a later version", KLTValue{{"ver", {{"val", "3.2"}, {"op", "GTE"}}}}, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.note);
    KLTValue c = campaign("c", KLTValue::array());
    for (const auto& [k, v] : row.audience.items()) c["audience"][k] = v;
    EXPECT_EQ(a.engine->checkConfiguration(c), row.admitted);
    EXPECT_EQ(a.engine->admissionOfConfiguration(c).admitted, row.admitted);
  }
  KLTController::sharedController().user()->setCustomInfo(KLTValue::object());
}

// A document compiled once parses as its JSON does: same items, same log lines.
TEST(KLTContextEvaluatorInstance, CompiledDocumentParsesAsItsJson) {
  KLTValue noId = campaign("x", KLTValue::array());
  noId.erase("_id");
  KLTValue low = buyTwice("low", "iPhone14,2");
  low["prio"] = 0;
  const auto json = std::make_shared<const KLTValue>(
      document({low, buyTwice("other-model", "Pixel 8"), noId, buyTwice("high", "iPhone14,2")}));
  Device plain("iPhone14,2"), compiled("iPhone14,2");
  plain.engine->parseConfiguration(json);
  compiled.engine->parseConfiguration(KLTCEDocument::compile(json));
  plain.drain();
  compiled.drain();
  auto sorted = [](std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
  };
  EXPECT_EQ(sorted(compiled.engine->configurationIdentifiers()), (std::vector<std::string>{"high", "low"}));
  EXPECT_EQ(compiled.log->lines(), plain.log->lines());
  EXPECT_TRUE(KLTCEDocument::compile(nullptr)->entries().empty());
  EXPECT_TRUE(KLTCEDocument::compile(std::make_shared<const KLTValue>(KLTValue::array()))->entries().empty());
}

// An instance that goes stops delivering: its controller holds no listener of it afterwards.
TEST(KLTContextEvaluatorInstance, DestructionForgetsItsListeners) {
  auto device = std::make_unique<Device>("iPhone14,2");
  device->engine->parseConfiguration(document({buyTwice("c", "iPhone14,2")}));
  device->drain();
  const auto controller = device->environment.controller;
  EXPECT_GT(controller->registrationCount(), 0u);
  std::weak_ptr<KLTContextEvaluator> gone = device->engine;
  device->engine.reset();
  EXPECT_TRUE(gone.expired());
  EXPECT_EQ(controller->registrationCount(), 0u);
  EXPECT_EQ(controller->deliverEvent(KLTEvent::make(kKLTEventCodeApp, "buy", KLTValue::object())), 0u);
}

}  // namespace
