// Two engines made through the C interface, driven from two threads at once, each on its own
// worker thread: each host receives only its own engine's dispatches, times and log lines.
#include <gtest/gtest.h>
#include <kltce/kltce.h>

#include <thread>

#include "testsupport/KLTCapiFixture.h"

namespace {

using capitest::Engine;
using capitest::Host;

TEST(KltceCapiConcurrency, TwoEnginesOnTwoThreadsStayApart) {
  constexpr int kEvents = 50;
  struct Side {
    Host host;
    std::string id;
    const char* version;
    int64_t start;
  };
  Side sides[2] = {{{}, "alpha_offer", "2.4.1", capitest::kNineUtc}, {{}, "beta_offer", "3.0", capitest::kNineUtc + 3'600'000}};
  auto drive = [&](Side& side) {
    side.host.now = side.start;
    kltce_config config = side.host.config(KLTCE_QUEUE_THREAD);
    config.app_version = side.version;
    Engine engine(config);
    ASSERT_EQ(engine.status, KLTCE_OK);
    ASSERT_EQ(kltce_engine_parse(engine.handle, capitest::document({capitest::homeOffer(side.id)}).c_str()), KLTCE_OK);
    ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
    for (int i = 0; i < kEvents; ++i) ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Home", nullptr), KLTCE_OK);
    ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
  };
  std::thread first([&] { drive(sides[0]); });
  std::thread second([&] { drive(sides[1]); });
  first.join();
  second.join();
  for (Side& side : sides) {
    const auto displays = side.host.takeDisplays();
    ASSERT_EQ(displays.size(), static_cast<std::size_t>(kEvents)) << side.id;
    for (const auto& d : displays) {
      EXPECT_EQ(d.info, R"({"id":")" + side.id + R"(","type":"IN_APP"})");
      EXPECT_EQ(d.time, side.start);
    }
    const std::string other = &side == &sides[0] ? sides[1].id : sides[0].id;
    std::lock_guard lock(side.host.mutex);
    for (const auto& [level, line] : side.host.logs) EXPECT_EQ(line.find(other), std::string::npos) << line;
  }
}

}  // namespace
