// The reference host's controller: the listener registry and the current user and session,
// including their use from several threads at once. (The SDK clock and display-event dispatch are
// checked through the runtime scenarios.)
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <climits>
#include <functional>
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
// a code twice), a listener that registers another while it is being called, and display events
// with and without a handler.
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
  // Display events reach the handler installed; without one they are dropped.
  int shown = 0;
  controller.dispatchEvent(std::make_shared<KLTInAppEvent>());
  controller.setDispatchHandler([&](std::shared_ptr<KLTDisplayEvent>) { ++shown; });
  controller.dispatchEvent(std::make_shared<KLTInAppEvent>());
  controller.setDispatchHandler(nullptr);
  controller.dispatchEvent(std::make_shared<KLTInAppEvent>());
  EXPECT_EQ(shown, 1);
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

// A queue that runs nothing until run(), and counts the batches handed to it.
class RecordingQueue final : public KLTSerialQueue {
 public:
  void async(std::function<void()> task) override { tasks.push_back(std::move(task)); }
  void asyncEach(std::size_t count, std::function<void(std::size_t)> task) override {
    ++batches;
    KLTSerialQueue::asyncEach(count, std::move(task));
  }
  bool waitUntilIdle() override { return true; }
  bool waitUntilIdleFor(std::chrono::milliseconds) override { return true; }
  bool isCurrent() const override { return false; }
  const std::string& label() const override { return name; }
  void run() {
    for (auto& t : tasks) t();
    tasks.clear();
  }
  std::vector<std::function<void()>> tasks;
  int batches = 0;
  std::string name = "test.recording";
};

// Posts its handling to a queue, naming the queue (eventQueue) or not; the handling writes its mark.
class QueuedListener final : public KLTEventListener, public std::enable_shared_from_this<QueuedListener> {
 public:
  QueuedListener(RecordingQueue& q, std::string& t, char m, bool named) : queue(q), trace(t), mark(m), namesQueue(named) {}
  void onEvent(std::shared_ptr<const KLTEvent> event) override {
    queue.async([self = shared_from_this(), event] { self->handleQueuedEvent(*event); });
  }
  KLTSerialQueue* eventQueue() const override { return namesQueue ? &queue : nullptr; }
  void handleQueuedEvent(const KLTEvent&) override { trace += mark; }
  RecordingQueue& queue;
  std::string& trace;
  char mark;
  bool namesQueue;
};

// Listeners that all name one queue get one batch per event; a lone listener, or any other list, is
// delivered listener by listener. Either way the handling runs in registration order, names before codes.
TEST(KLTController, ListenersOnOneQueueGetOneBatchInTheirOrder) {
  struct Row {
    std::string namedMarks, typedMarks;  // upper case: a listener that does not name its queue
    int batches;
  };
  const std::vector<Row> rows = {{"ab", "c", 1}, {"", "cd", 1}, {"a", "", 0}, {"aBc", "", 0}, {"ab", "C", 0}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.namedMarks + "|" + r.typedMarks);
    KLTController controller;
    RecordingQueue queue;
    std::string trace;
    for (const auto& [marks, byName] : {std::pair{r.namedMarks, true}, std::pair{r.typedMarks, false}}) {
      for (const char m : marks) {
        auto listener = std::make_shared<QueuedListener>(queue, trace, static_cast<char>(std::tolower(m)), std::islower(m));
        byName ? controller.registerIdentifer("4___tap", listener) : controller.registerForEventWithType(4, listener);
      }
    }
    const std::size_t total = r.namedMarks.size() + r.typedMarks.size();
    EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "tap")), total);
    EXPECT_EQ(queue.batches, r.batches);
    EXPECT_EQ(trace, "");
    queue.run();
    std::string expected;
    for (const char m : r.namedMarks + r.typedMarks) expected += static_cast<char>(std::tolower(m));
    EXPECT_EQ(trace, expected);
  }
}

}  // namespace
