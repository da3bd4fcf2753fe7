// The reference host's controller: the listener registry and the current user and session,
// including their use from several threads at once. (The SDK clock and display-event dispatch are
// checked through the runtime scenarios.)
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "host/KLTController.h"

namespace {

// Hosts call listeners from any thread, several at once: the listener guards what it keeps.
class CountingListener final : public KLTEventListener {
 public:
  void onEvent(std::shared_ptr<const KLTEvent>) override { ++count; }
  std::atomic<int> count{0};
};

// Registers another listener while being called: delivery must not hold the registry's lock then.
class RegisteringListener final : public KLTEventListener {
 public:
  explicit RegisteringListener(KLTController& c) : controller(c) {}
  void onEvent(std::shared_ptr<const KLTEvent>) override { controller.registerForEventWithType(9, std::make_shared<CountingListener>()); }
  KLTController& controller;
};

// Delivery by identifier and by code is what every runtime scenario rests on; here are the edges:
// one delivery per registration (the same listener twice under one key counts once, under a key and
// a code twice), and a listener that registers another while it is being called.
TEST(KLTController, DeliversOncePerRegistrationAndLetsListenersRegister) {
  KLTController controller;
  auto twiceSameKey = std::make_shared<CountingListener>(), idAndCode = std::make_shared<CountingListener>();
  controller.registerIdentifer("4___purchase", twiceSameKey);
  controller.registerIdentifer("4___purchase", twiceSameKey);
  controller.registerIdentifer("4___purchase", idAndCode);
  controller.registerForEventWithType(4, idAndCode);
  controller.registerIdentifer("4___purchase", nullptr);  // ignored
  EXPECT_EQ(controller.registrationCount(), 3u);
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "purchase", KLTValue::object({{"k", 1}}))), 3u);
  EXPECT_EQ(twiceSameKey->count, 1);
  EXPECT_EQ(idAndCode->count, 2);
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "Purchase")), 1u) << "identifiers match exactly; the code still does";
  controller.registerForEventWithType(9, std::make_shared<RegisteringListener>(controller));
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(9, "go")), 1u) << "the list taken at delivery start is used";
  EXPECT_EQ(controller.registrationCount(), 5u);
}

// Identifiers are routed by their code and name: only an exact "<code>___<name>" is ever reached.
TEST(KLTController, RegisteredIdentifierReachesOnlyTheEventThatWritesIt) {
  struct Row {
    std::string identifier;
    unsigned long code;
    std::string name;
    bool delivered;
  };
  const std::vector<Row> rows = {
      {"4___a___b", 4, "a___b", true},      {"4___", 4, "", true},
      {"0___x", 0, "x", true},              {"18446744073709551615___x", ULONG_MAX, "x", true},
      {"04___tap", 4, "tap", false},        {"+4___tap", 4, "tap", false},
      {"tap", 4, "tap", false},             {"___tap", 0, "tap", false},
      {"18446744073709551616___x", 0, "x", false}, {"4__tap", 4, "_tap", false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.identifier);
    KLTController controller;
    auto listener = std::make_shared<CountingListener>();
    controller.registerIdentifer(r.identifier, listener);
    EXPECT_EQ(controller.deliverEvent(KLTEvent::make(r.code, r.name, KLTValue())), r.delivered ? 1u : 0u);
  }
}

}  // namespace
