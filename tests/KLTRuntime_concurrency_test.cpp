// Events delivered from several host threads at once, while documents are parsed and counts are
// updated: every piece of rule work must run on the serial queue, with no data race (this file
// also runs under ThreadSanitizer).
#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <vector>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTTestHost.h"

using namespace kltfixture;

TEST(RuntimeConcurrency, EventsFromManyHostThreadsAreAllCountedOnTheQueue) {
  KLTTestHost host{2};
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  constexpr int kThreads = 4;
  constexpr int kEventsPerThread = 250;
  constexpr int kTotal = kThreads * kEventsPerThread;
  evaluator.parseConfiguration(document(
      {campaign("every", KLTValue::array({eventCondition("app_event", "tap", "GTE", 1)})),
       campaign("exactly", KLTValue::array({eventCondition("app_event", "tap", "EQ", kTotal)}), "SURVEY"),
       campaign("screens", KLTValue::array({eventCondition("activity_event", "home", "GTE", 1)}), "IN_LINE")}));
  host.drainEvaluatorQueue();

  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kEventsPerThread; ++i) {
        host.deliver(kKLTEventCodeApp, "tap", {{"thread", t}, {"i", i}});
        if (i % 50 == 0) host.deliver(kKLTEventCodeActivity, "home");
        if (i % 100 == 0) evaluator.updateCountForConfigWithIdentifier("every");
      }
    });
  }
  // Parse a further document while events are flowing: its items register from the queue.
  evaluator.parseConfiguration(document({campaign("late", KLTValue::array({eventCondition("app_event", "tap", "GTE", 1)}))}));
  for (auto& p : producers) p.join();
  host.drainEvaluatorQueue();

  std::map<std::string, int> perId;
  for (const auto& d : host.dispatched()) ++perId[d.info["id"].get<std::string>()];
  EXPECT_EQ(perId["every"], kTotal);
  EXPECT_EQ(perId["exactly"], 1);
  EXPECT_EQ(perId["screens"], kThreads * (kEventsPerThread / 50));
  EXPECT_LE(perId["late"], kTotal);
}
