// `kltce state`: the stored counters shown with ISO dates and the next day period, then cleared for
// good; nothing is created where no store exists. A damaged or busy store is refused by every
// command that reads it and left where it is; one writer at a time.
#include "tools/kltce/cli/state_command.h"

#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "platform/KLTStoreLock.h"
#include "platform/KLTUserDefaults.h"
#include "testsupport/KLTTestHost.h"
#include "testsupport/KLTTestMount.h"
#include "tools/kltce/fleet/fleet_command.h"
#include "tools/kltce/input/time_text.h"
#include "tools/kltce/replay/replay.h"

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

// Each command on a store it cannot use: its status, one line naming the trouble, and the file
// left as it was (only a writer that owns the store moves a damaged file aside, and starts empty).
TEST(KltceStateCommand, StoresThatCannotBeUsedAreRefusedAndLeftInPlace) {
  struct Row {
    const char* note;
    const char* content;  // written to the state file; nullptr: a sound store with one counter
    bool lockHeld;        // another writer holds the store
    bool readOnly;        // the store is on a file system mounted read-only
    std::function<int(const fs::path&, std::ostream& out, std::ostream& err)> command;
    int status;
    const char* message;
    bool movedAside;
  };
  const auto fleetWithState = [](const fs::path& state, std::ostream& out, std::ostream& err) {
    kltce::FleetCommand c;
    c.document = KLTCE_SOURCE_DIR "/examples/campaigns.json";
    c.fleet = KLTCE_SOURCE_DIR "/examples/fleet/fleet.jsonl";
    c.state = state;
    c.workers = 1;
    return kltce::runFleetCommand(c, out, err);
  };
  const auto runWithState = [](const fs::path& state, std::ostream&, std::ostream& err) {
    std::string error;
    const bool opened = kltce::openStateStore(state, false, error) != nullptr;
    err << error;
    return opened ? 0 : 2;
  };
  const std::string damaged = "not a store at all, but text long enough to fill a header of a database file!!";
  const std::vector<Row> rows = {
      {"show: damaged", damaged.c_str(), false, false, kltce::runStateShow, 2,
       "is damaged (file is not a database); it is left as it is", false},
      {"fleet --state: damaged", damaged.c_str(), false, false, fleetWithState, 2, "--state: the store", false},
      {"run: damaged (moved aside by the writer)", damaged.c_str(), false, false, runWithState, 0, "", true},
      {"run: another writer", nullptr, true, false, runWithState, 2, "is in use: another process is writing", false},
      {"reset: another writer", nullptr, true, false, kltce::runStateReset, 2, "another process is writing", false},
      {"show: another writer (readers need no lock)", nullptr, true, false, kltce::runStateShow, 0, "", false},
      {"show: read-only file system", nullptr, false, true, kltce::runStateShow, 0, R"("promo":{"count":1})", false},
      {"fleet --state: read-only file system", nullptr, false, true, fleetWithState, 0, "", false},
      {"run: read-only file system", nullptr, false, true, runWithState, 2, "Read-only file system", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    KLTTempDir dir;
    std::unique_ptr<KLTTestMount> mount;
    if (row.readOnly && !(mount = std::make_unique<KLTTestMount>(1 << 20))->mounted()) {
      std::cout << "[ SKIPPED  ] " << row.note << ": " << mount->why() << '\n';
      continue;
    }
    const fs::path path = (mount ? mount->path() : dir.path()) / "counters.kltstore";
    if (row.content) {
      std::ofstream(path) << row.content;
    } else {
      KLTUserDefaults store(path);
      store.setObject({{"promo", {{"count", 1}}}}, kKLTFrequencyStoreKey);
      ASSERT_TRUE(store.synchronize());
    }
    if (mount) {
      ASSERT_TRUE(mount->setReadOnly(true));
    }
    std::string why;
    auto lock = row.lockHeld ? KLTStoreLock::acquire(path, why) : nullptr;
    ASSERT_EQ(lock != nullptr, row.lockHeld) << why;
    std::ostringstream out, err;
    EXPECT_EQ(row.command(path, out, err), row.status) << err.str();
    EXPECT_NE((row.status == 0 ? out : err).str().find(row.message), std::string::npos) << out.str() << err.str();
    EXPECT_EQ(fs::exists(path.string() + ".unreadable"), row.movedAside);
    if (row.content && !row.movedAside) {
      std::ifstream in(path);
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), row.content);
    }
    if (!row.content) {
      lock.reset();
      EXPECT_EQ(KLTUserDefaults(path, nullptr, KLTStoreAccess::ReadOnly).objectForKey(kKLTFrequencyStoreKey),
                (KLTValue{{"promo", {{"count", 1}}}}));
    }
  }
}

}  // namespace
