// The reference host's controller: the listener registry, the SDK clock, display-event dispatch and
// the current user and session, including their use from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/KLTController.h"
#include "platform/KLTVirtualClock.h"

namespace {

// Hosts call listeners from any thread, several at once: the listener guards what it keeps.
class CountingListener final : public KLTEventListener {
 public:
  void onEvent(std::shared_ptr<const KLTEvent> event) override {
    ++count;
    std::lock_guard lock(mutex);
    last_ = std::move(event);
  }
  std::shared_ptr<const KLTEvent> last() {
    std::lock_guard lock(mutex);
    return last_;
  }
  std::atomic<int> count{0};

 private:
  std::mutex mutex;
  std::shared_ptr<const KLTEvent> last_;
};

TEST(KLTController, ListenerIdentifierFormatting) {
  struct Row {
    unsigned long code;
    KLTValue name;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {4, "purchase", "4___purchase"},
      {4, KLTValue(), "4___(null)"},
      {1, 12, "1___12"},
      {5, 2.5, "5___2.5"},
      {5, 3.0, "5___3"},
      {4, true, "4___true"},
      {3, "", "3___"},
      {ULONG_MAX, "x", "18446744073709551615___x"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.expected);
    EXPECT_EQ(KLTController::listenerIdentifier(r.code, r.name), r.expected);
  }
}

TEST(KLTController, DeliversByIdentifierAndByCode) {
  KLTController controller;
  std::map<std::string, std::shared_ptr<CountingListener>> l;
  for (const char* name : {"byId", "byCode", "otherCode", "twiceSameKey", "idAndCode", "twiceCode"}) {
    l[name] = std::make_shared<CountingListener>();
  }
  controller.registerIdentifer("4___purchase", l["byId"]);
  controller.registerForEventWithType(4, l["byCode"]);
  controller.registerIdentifer("5___purchase", l["otherCode"]);
  controller.registerIdentifer("4___purchase", l["twiceSameKey"]);
  controller.registerIdentifer("4___purchase", l["twiceSameKey"]);
  controller.registerIdentifer("4___purchase", l["idAndCode"]);
  controller.registerForEventWithType(4, l["idAndCode"]);
  controller.registerForEventWithType(1, l["twiceCode"]);
  controller.registerForEventWithType(1, l["twiceCode"]);
  controller.registerIdentifer("4___purchase", nullptr);  // ignored
  EXPECT_EQ(controller.registrationCount(), 7u);

  struct Row {
    unsigned long code;
    std::string name;
    std::size_t deliveries;
    std::map<std::string, int> received;
  };
  const std::vector<Row> rows = {
      {4, "purchase", 5, {{"byId", 1}, {"byCode", 1}, {"twiceSameKey", 1}, {"idAndCode", 2}}},
      {5, "purchase", 1, {{"otherCode", 1}}},
      {4, "other", 2, {{"byCode", 1}, {"idAndCode", 1}}},
      {4, "Purchase", 2, {{"byCode", 1}, {"idAndCode", 1}}},  // identifiers match exactly
      {1, "screen", 1, {{"twiceCode", 1}}},
      {3, "", 0, {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.code) + "___" + r.name);
    std::map<std::string, int> before;
    for (const auto& [name, listener] : l) before[name] = listener->count;
    const auto event = KLTEvent::make(r.code, r.name, KLTValue::object({{"k", 1}}));
    EXPECT_EQ(controller.deliverEvent(event), r.deliveries);
    for (const auto& [name, listener] : l) {
      const int got = listener->count - before[name];
      const auto it = r.received.find(name);
      EXPECT_EQ(got, it == r.received.end() ? 0 : it->second) << name;
      if (got > 0) {
        EXPECT_EQ(listener->last(), event) << name << " gets the event object itself";
      }
    }
  }
  EXPECT_EQ(controller.deliverEvent(nullptr), 0u);
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
    EXPECT_EQ(controller.registrationCount(), 1u);
    EXPECT_EQ(controller.deliverEvent(KLTEvent::make(r.code, r.name, KLTValue())), r.delivered ? 1u : 0u);
    EXPECT_EQ(listener->count, r.delivered ? 1 : 0);
  }
}

TEST(KLTController, RemoveAllListenersForgetsEveryRegistration) {
  KLTController controller;
  auto listener = std::make_shared<CountingListener>();
  controller.registerIdentifer("4___a", listener);
  controller.registerForEventWithType(4, listener);
  ASSERT_EQ(controller.registrationCount(), 2u);
  controller.removeAllListeners();
  EXPECT_EQ(controller.registrationCount(), 0u);
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "a")), 0u);
  EXPECT_EQ(listener->count, 0);
  controller.registerIdentifer("4___a", listener);  // registering again works afterwards
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "a")), 1u);
}

// A listener that registers further listeners while being called: delivery must not hold the
// registry's lock around the call.
class RegisteringListener final : public KLTEventListener {
 public:
  explicit RegisteringListener(KLTController& c) : controller(c) {}
  void onEvent(std::shared_ptr<const KLTEvent>) override {
    ++count;
    controller.registerIdentifer("4___go", std::make_shared<CountingListener>());
    controller.registerForEventWithType(4, std::make_shared<CountingListener>());
  }
  KLTController& controller;
  int count = 0;
};

TEST(KLTController, ListenerMayRegisterDuringDelivery) {
  KLTController controller;
  auto listener = std::make_shared<RegisteringListener>(controller);
  controller.registerIdentifer("4___go", listener);
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "go")), 1u) << "the list taken at delivery start is used";
  EXPECT_EQ(listener->count, 1);
  EXPECT_EQ(controller.registrationCount(), 3u);
}

TEST(KLTController, CurrentSDKTimeFollowsTheInstalledClock) {
  auto clock = std::make_shared<KLTVirtualClock>(KLTTimePoint(std::chrono::seconds(1'795'860'000)));
  const auto previous = KLTClock::setCurrent(clock);
  KLTController controller;
  EXPECT_EQ(controller.currentSDKTimeInMillis(), 1'795'860'000'000);
  clock->advance(std::chrono::milliseconds(1500) + std::chrono::microseconds(999));
  EXPECT_EQ(controller.currentSDKTimeInMillis(), 1'795'860'001'500) << "whole milliseconds, truncated";
  KLTClock::setCurrent(previous);
}

TEST(KLTController, DispatchEventReachesTheInstalledHandler) {
  KLTController controller;
  std::vector<std::shared_ptr<KLTDisplayEvent>> got;
  controller.dispatchEvent(std::make_shared<KLTInAppEvent>());  // no handler yet: dropped
  controller.setDispatchHandler([&](std::shared_ptr<KLTDisplayEvent> e) { got.push_back(std::move(e)); });

  auto survey = std::make_shared<KLTSurveyEvent>();
  survey->setInfo("c1", "id");
  survey->setInfo(KLTValue(), "subtype");  // null sets nothing
  survey->setInfo("survey", "type");
  controller.dispatchEvent(survey);
  controller.dispatchEvent(nullptr);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], survey);
  EXPECT_EQ(got[0]->className(), "KLTSurveyEvent");
  EXPECT_EQ(got[0]->info().dump(), R"({"id":"c1","type":"survey"})");

  controller.setDispatchHandler(nullptr);
  controller.dispatchEvent(std::make_shared<KLTInlineEvent>());
  EXPECT_EQ(got.size(), 1u) << "a nullptr handler drops display events";
}

TEST(KLTController, UserAndSessionDefaultsAndReplacement) {
  KLTController controller;
  ASSERT_NE(controller.user(), nullptr);
  ASSERT_NE(controller.session(), nullptr);
  EXPECT_EQ(*controller.user()->userAttributes(), KLTValue::object());
  auto user = std::make_shared<KLTUser>();
  user->setUserAttribute("plan", "gold");
  user->setCustomInfoValue("name", "Ann");
  controller.setUser(user);
  EXPECT_EQ(controller.user(), user);
  const auto snapshot = controller.user()->userAttributes();
  user->setUserAttribute("plan", "silver");
  EXPECT_EQ((*snapshot)["plan"], "gold") << "a snapshot never changes";
  EXPECT_EQ((*user->userAttributes())["plan"], "silver");
  EXPECT_EQ((*user->customInfo())["name"], "Ann");
  controller.setSession(nullptr);
  ASSERT_NE(controller.session(), nullptr) << "nullptr starts a fresh, empty session";
  EXPECT_EQ(*controller.session()->sessionAttributes(), KLTValue::object());
}

// Readers on several threads see whole attribute sets while a writer replaces them, the user
// and session objects themselves, and the registry (checked by ThreadSanitizer as well).
TEST(KLTController, AttributesReadableFromOtherThreadsWhileBeingReplaced) {
  KLTController controller;
  constexpr int kRounds = 2000;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::atomic<long> reads{0};

  std::thread writer([&] {
    for (int i = 0; i < kRounds; ++i) {
      const KLTValue set = KLTValue::object({{"n", i}, {"s", std::to_string(i)}});
      controller.user()->setUserAttributes(set);
      controller.session()->setSessionAttribute("n", i);
      controller.session()->setSessionAttribute("s", std::to_string(i));
      controller.user()->setCustomInfo(set);
      if (i % 100 == 0) {
        auto fresh = std::make_shared<KLTUser>();
        fresh->setUserAttributes(set);
        controller.setUser(fresh);
        controller.setSession(nullptr);
      }
      controller.registerIdentifer("4___e" + std::to_string(i % 10), std::make_shared<CountingListener>());
    }
    done = true;
  });
  auto consistent = [](const KLTValue& v) {
    if (v.empty()) return true;  // a fresh object before its first set
    return v.is_object() && v.contains("n") && v.contains("s") &&
           std::to_string(klt::integerValue(v["n"])) == *klt::stringPtr(v["s"]);
  };
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      do {  // at least one round, however fast the writer is
        const auto user = controller.user()->userAttributes();
        const auto info = controller.user()->customInfo();
        const auto session = controller.session()->sessionAttributes();
        if (!consistent(*user) || !consistent(*info)) ++torn;
        // The session is set key by key: "s" may lag one step behind "n", never the other way.
        if (!session->empty() && !session->contains("n")) ++torn;
        controller.deliverEvent(KLTEvent::make(4, "e3"));
        ++reads;
      } while (!done);
    });
  }
  writer.join();
  for (auto& t : readers) t.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(controller.registrationCount(), static_cast<std::size_t>(kRounds));
  EXPECT_EQ((*controller.user()->userAttributes())["n"], kRounds - 1);
}

}  // namespace
