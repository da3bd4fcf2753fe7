// `kltce state`: the stored counters shown with ISO dates and the next day period, then cleared for
// good; nothing is created where no store exists.
#include "tools/kltce/state_command.h"

#include <sstream>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/time_text.h"

namespace {

namespace fs = std::filesystem;

TEST(KltceStateCommand, ShowsThenClearsTheCounters) {
  const fs::path dir = fs::temp_directory_path() / ("kltce_state_" + std::to_string(::getpid()));
  fs::remove_all(dir);
  const fs::path path = dir / "counters.kltstore";
  std::ostringstream out, err;
  EXPECT_EQ(kltce::runStateShow(path, out, err), 2);
  EXPECT_FALSE(fs::exists(path));
  {
    KLTUserDefaults store(path);
    const KLTValue day = klt::makeDate(*kltce::readInstant(KLTValue("2026-11-22T08:30:00Z")));
    store.setObject({{"promo", {{"limit", 3}, {"count", 1}, {"day", day}, {"day_count", 1}}}}, kKLTFrequencyStoreKey);
    ASSERT_TRUE(store.synchronize());
  }
  EXPECT_EQ(kltce::runStateShow(path, out, err), 0);
  EXPECT_EQ(out.str(), "{\"state\":\"" + path.string() +
                           "\",\"counters\":{\"promo\":{\"limit\":3,\"count\":1,\"day\":\"2026-11-22T08:30:00Z\",\"day_count\":1,"
                           "\"next_day_period\":\"2026-11-23T09:30:00Z\"}}}\n");
  EXPECT_EQ(kltce::runStateReset(path, out, err), 0);
  EXPECT_TRUE(KLTUserDefaults(path).objectForKey(kKLTFrequencyStoreKey).is_null());
  EXPECT_EQ(err.str(), "kltce: state: no counters stored at '" + path.string() + "'\n");
  fs::remove_all(dir);
}

}  // namespace
