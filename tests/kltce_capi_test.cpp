// The C interface (include/kltce/kltce.h): bad input of every kind answers a status and a message,
// and a host driving an engine through it gets what a C++ host gets.
#include <gtest/gtest.h>
#include <kltce/kltce.h>

#include <filesystem>
#include <functional>

#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "testsupport/KLTCapiFixture.h"

namespace {

using capitest::Engine;
using capitest::Host;

const std::string kDocument = capitest::document({capitest::homeOffer()});
constexpr char kBadUtf8[] = "\xC3\x28";
const std::string kBadUtf8Json = std::string(R"({"k":")") + kBadUtf8 + "\"}";

struct BadInputRow {
  const char* label;
  std::function<kltce_status(kltce_engine* open, kltce_engine* closed)> call;
  kltce_status expected;
};

TEST(KltceCapi, EveryBadInputAnswersItsStatusAndAMessage) {
  Host host;
  Engine open(host.config()), closed(host.config());
  ASSERT_EQ(open.status, KLTCE_OK) << kltce_last_error();
  ASSERT_EQ(closed.status, KLTCE_OK) << kltce_last_error();
  ASSERT_EQ(kltce_engine_close(closed.handle), KLTCE_OK);
  char* text = nullptr;
  kltce_config config = host.config();
  const std::vector<BadInputRow> rows = {
      {"create without config", [&](auto, auto) { kltce_engine* e; return kltce_engine_create(nullptr, &e); }, KLTCE_ERROR_NULL_HANDLE},
      {"create without out", [&](auto, auto) { return kltce_engine_create(&config, nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"create with unknown zone", [&](auto, auto) {
         kltce_config c = host.config();
         c.time_zone = "Mars/Olympus";
         kltce_engine* e = nullptr;
         return kltce_engine_create(&c, &e);
       }, KLTCE_ERROR_INVALID_ARGUMENT},
      {"create with bad UTF-8 version", [&](auto, auto) {
         kltce_config c = host.config();
         c.app_version = kBadUtf8;
         kltce_engine* e = nullptr;
         return kltce_engine_create(&c, &e);
       }, KLTCE_ERROR_INVALID_UTF8},
      {"create with unknown queue", [&](auto, auto) {
         kltce_config c = host.config();
         c.queue = static_cast<kltce_queue_kind>(7);
         kltce_engine* e = nullptr;
         return kltce_engine_create(&c, &e);
       }, KLTCE_ERROR_INVALID_ARGUMENT},
      {"config_init NULL", [&](auto, auto) { return kltce_config_init(nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"parse NULL handle", [&](auto, auto) { return kltce_engine_parse(nullptr, kDocument.c_str()); }, KLTCE_ERROR_NULL_HANDLE},
      {"parse NULL text", [&](auto o, auto) { return kltce_engine_parse(o, nullptr); }, KLTCE_ERROR_INVALID_ARGUMENT},
      {"parse invalid JSON", [&](auto o, auto) { return kltce_engine_parse(o, R"({"configs": [)"); }, KLTCE_ERROR_INVALID_JSON},
      {"parse too deep", [&](auto o, auto) { return kltce_engine_parse(o, (std::string(300, '[') + std::string(300, ']')).c_str()); }, KLTCE_ERROR_INVALID_JSON},
      {"parse invalid UTF-8", [&](auto o, auto) { return kltce_engine_parse(o, kBadUtf8Json.c_str()); }, KLTCE_ERROR_INVALID_UTF8},
      {"parse a list", [&](auto o, auto) { return kltce_engine_parse(o, "[]"); }, KLTCE_ERROR_WRONG_SHAPE},
      {"parse configs not a list", [&](auto o, auto) { return kltce_engine_parse(o, R"({"configs": {}})"); }, KLTCE_ERROR_WRONG_SHAPE},
      {"parse closed", [&](auto, auto c) { return kltce_engine_parse(c, kDocument.c_str()); }, KLTCE_ERROR_CLOSED},
      {"deliver NULL handle", [&](auto, auto) { return kltce_engine_deliver_event(nullptr, 1, "Home", nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"deliver name not UTF-8", [&](auto o, auto) { return kltce_engine_deliver_event(o, 1, kBadUtf8, nullptr); }, KLTCE_ERROR_INVALID_UTF8},
      {"deliver attributes invalid", [&](auto o, auto) { return kltce_engine_deliver_event(o, 4, "buy", "{plan: gold}"); }, KLTCE_ERROR_INVALID_JSON},
      {"deliver attributes a list", [&](auto o, auto) { return kltce_engine_deliver_event(o, 4, "buy", "[1]"); }, KLTCE_ERROR_WRONG_SHAPE},
      {"deliver closed", [&](auto, auto c) { return kltce_engine_deliver_event(c, 1, "Home", nullptr); }, KLTCE_ERROR_CLOSED},
      {"count NULL id", [&](auto o, auto) { return kltce_engine_count_display(o, nullptr); }, KLTCE_ERROR_INVALID_ARGUMENT},
      {"count closed", [&](auto, auto c) { return kltce_engine_count_display(c, "home_offer"); }, KLTCE_ERROR_CLOSED},
      {"user attributes a number", [&](auto o, auto) { return kltce_engine_set_user_attributes(o, "3"); }, KLTCE_ERROR_WRONG_SHAPE},
      {"session attributes NULL", [&](auto o, auto) { return kltce_engine_set_session_attributes(o, nullptr); }, KLTCE_ERROR_INVALID_ARGUMENT},
      {"user custom info not UTF-8", [&](auto o, auto) { return kltce_engine_set_user_custom_info(o, kBadUtf8Json.c_str()); }, KLTCE_ERROR_INVALID_UTF8},
      {"session custom info closed", [&](auto, auto c) { return kltce_engine_set_session_custom_info(c, "{}"); }, KLTCE_ERROR_CLOSED},
      {"new session invalid", [&](auto o, auto) { return kltce_engine_new_session(o, "{", nullptr, 0); }, KLTCE_ERROR_INVALID_JSON},
      {"new session closed", [&](auto, auto c) { return kltce_engine_new_session(c, nullptr, nullptr, 0); }, KLTCE_ERROR_CLOSED},
      {"macros NULL out", [&](auto o, auto) { return kltce_engine_replace_macros(o, "x", nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"macros not UTF-8", [&](auto o, auto) { return kltce_engine_replace_macros(o, kBadUtf8, &text); }, KLTCE_ERROR_INVALID_UTF8},
      {"macros closed", [&](auto, auto c) { return kltce_engine_replace_macros(c, "x", &text); }, KLTCE_ERROR_CLOSED},
      {"decision closed", [&](auto, auto c) { return kltce_engine_set_decision_callback(c, nullptr, nullptr); }, KLTCE_ERROR_CLOSED},
      {"check wrong shape", [&](auto o, auto) { return kltce_engine_check(o, "true", &text); }, KLTCE_ERROR_WRONG_SHAPE},
      {"check NULL out", [&](auto o, auto) { return kltce_engine_check(o, kDocument.c_str(), nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"wait NULL handle", [&](auto, auto) { return kltce_engine_wait_idle(nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"drain closed", [&](auto, auto c) { return kltce_engine_drain(c); }, KLTCE_ERROR_CLOSED},
      {"close twice", [&](auto, auto c) { return kltce_engine_close(c); }, KLTCE_ERROR_CLOSED},
      {"close NULL", [&](auto, auto) { return kltce_engine_close(nullptr); }, KLTCE_ERROR_NULL_HANDLE},
      {"destroy NULL", [&](auto, auto) { return kltce_engine_destroy(nullptr); }, KLTCE_ERROR_NULL_HANDLE},
  };
  for (const auto& row : rows) {
    const kltce_status status = row.call(open.handle, closed.handle);
    EXPECT_EQ(kltce_status_name(status), std::string(kltce_status_name(row.expected))) << row.label;
    EXPECT_STRNE(kltce_last_error(), "") << row.label;
    EXPECT_EQ(text, nullptr) << row.label << ": no text handed out on an error";
  }
  // The open engine still works after all that.
  ASSERT_EQ(kltce_engine_parse(open.handle, kDocument.c_str()), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(open.handle), KLTCE_OK);  // the campaigns listen once the parse has run
  ASSERT_EQ(kltce_engine_deliver_event(open.handle, 1, "Home", nullptr), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(open.handle), KLTCE_OK);
  EXPECT_EQ(host.takeDisplays().size(), 1u);
}

TEST(KltceCapi, DispatchesOnceADayAndCountsWhatTheHostShowed) {
  Host host;
  Engine engine(host.config());
  ASSERT_EQ(kltce_engine_parse(engine.handle, kDocument.c_str()), KLTCE_OK);
  ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
  ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Home", "{}"), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
  auto displays = host.takeDisplays();
  ASSERT_EQ(displays.size(), 1u);
  EXPECT_EQ(displays[0].className, "KLTInAppEvent");
  EXPECT_EQ(displays[0].info, R"({"id":"home_offer","type":"IN_APP"})");
  EXPECT_EQ(displays[0].time, capitest::kNineUtc);

  // Shown once today: the day limit of 1 holds until tomorrow.
  ASSERT_EQ(kltce_engine_count_display(engine.handle, "home_offer"), KLTCE_OK);
  host.now += 60'000;
  ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Home", nullptr), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
  EXPECT_TRUE(host.takeDisplays().empty());
  // Another screen is not the campaign's.
  ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Settings", nullptr), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
  EXPECT_TRUE(host.takeDisplays().empty());
}

TEST(KltceCapi, VirtualTimersEndAtOnceAndTheEngineTimeNeverGoesBack) {
  Host host;
  Engine engine(host.config());
  ASSERT_EQ(kltce_engine_parse(engine.handle, capitest::document({capitest::idleSurvey(30'000)}).c_str()), KLTCE_OK);
  ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
  ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 4, "order_completed", nullptr), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
  auto displays = host.takeDisplays();
  ASSERT_EQ(displays.size(), 1u);
  EXPECT_EQ(displays[0].className, "KLTSurveyEvent");
  EXPECT_EQ(displays[0].time, capitest::kNineUtc + 30'000);
}

TEST(KltceCapi, ATimerThatNeverEndsBlocksTheDrainedQueueWithoutHanging) {
#if defined(__SANITIZE_ADDRESS__)
  // An engine whose queue is held for good leaves its rule objects in memory by design (freeing
  // them under the held task is not safe): not a leak to report.
  __lsan::ScopedDisabler keptByDesign;
#endif
  Host host;
  Engine engine(host.config());
  ASSERT_EQ(kltce_engine_parse(engine.handle, capitest::document({capitest::idleSurvey(-5000)}).c_str()), KLTCE_OK);
  ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
  ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 4, "order_completed", nullptr), KLTCE_OK);
  EXPECT_EQ(kltce_engine_drain(engine.handle), KLTCE_ERROR_BLOCKED);
  EXPECT_NE(std::string(kltce_last_error()).find("never ends"), std::string::npos) << kltce_last_error();
}

TEST(KltceCapi, LogLinesArriveWholeWithTheirLevelAndPassTheHostsLevel) {
  // A version rejection logs one ERROR line, which passes at level 3 but not at 4; INFO lines always pass.
  for (const int logLevel : {3, 4}) {
    Host host;
    kltce_config config = host.config();
    config.log_level = logLevel;
    config.app_version = "1.9";
    Engine engine(config);
    ASSERT_EQ(kltce_engine_parse(engine.handle, kDocument.c_str()), KLTCE_OK);
    ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
    std::lock_guard lock(host.mutex);
    int errors = 0, infos = 0;
    for (const auto& [level, line] : host.logs) {
      const char* prefix = level == KLTCE_LOG_DEBUG ? "<KLT DEBUG> " : level == KLTCE_LOG_INFO ? "<KLT INFO> " : "<KLT ERROR> ";
      EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
      EXPECT_EQ(line.back(), '\n') << line;
      errors += level == KLTCE_LOG_ERROR;
      infos += level == KLTCE_LOG_INFO;
    }
    EXPECT_EQ(errors, logLevel == 3 ? 1 : 0) << "level " << logLevel;
    EXPECT_EQ(infos, 2) << "level " << logLevel << ": the start-up line and the rejected parse";
  }
}

TEST(KltceCapi, DecisionRecordsArriveAsJsonWithTheEngineTime) {
  Host host;
  Engine engine(host.config());
  ASSERT_EQ(kltce_engine_set_decision_callback(engine.handle, Host::decision, &host), KLTCE_OK);
  ASSERT_EQ(kltce_engine_parse(engine.handle, kDocument.c_str()), KLTCE_OK);
  ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
  std::lock_guard lock(host.mutex);
  ASSERT_FALSE(host.records.empty());
  EXPECT_NE(host.records[0].find(R"("kind":"admitted","campaign":"home_offer")"), std::string::npos) << host.records[0];
  EXPECT_NE(host.records[0].find(R"("time":1795338000000)"), std::string::npos) << host.records[0];
}
TEST(KltceCapi, AudienceAttributesSetBeforeTheParseDecideTheAdmission) {
  const std::string byCountry = R"({"configs":[{"_id":"fr_only","enabled":true,"audience":{"attributes":{"user":)"
                                R"([{"name":"country","value":["FR"],"operator":"EQ"}],"session":[]}},)"
                                R"("validity":{"start_date":"2026-01-01T00:00:00Z","end_date":"2027-12-31T23:59:59Z"}}]})";
  for (const char* country : {"FR", "US"}) {
    Host host;
    Engine engine(host.config());
    ASSERT_EQ(kltce_engine_set_user_attributes(engine.handle, (std::string(R"({"country":")") + country + "\"}").c_str()), KLTCE_OK);
    char* findings = nullptr;
    ASSERT_EQ(kltce_engine_check(engine.handle, byCountry.c_str(), &findings), KLTCE_OK);
    EXPECT_EQ(std::string(findings).find(R"("admitted":true)") != std::string::npos, std::string(country) == "FR") << findings;
    kltce_string_free(findings);
  }
}

TEST(KltceCapi, CloseRunsWhatIsQueuedAndNoCallbackComesAfter) {
  Host host;
  Engine engine(host.config(KLTCE_QUEUE_THREAD));
  ASSERT_EQ(kltce_engine_parse(engine.handle, kDocument.c_str()), KLTCE_OK);
  ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
  ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Home", nullptr), KLTCE_OK);
  ASSERT_EQ(kltce_engine_close(engine.handle), KLTCE_OK);
  EXPECT_EQ(host.takeDisplays().size(), 1u);
  std::size_t logs = 0;
  {
    std::lock_guard lock(host.mutex);
    logs = host.logs.size();
  }
  EXPECT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Home", nullptr), KLTCE_ERROR_CLOSED);
  EXPECT_TRUE(host.takeDisplays().empty());
  std::lock_guard lock(host.mutex);
  EXPECT_EQ(host.logs.size(), logs);
}

TEST(KltceCapi, CountersPersistInTheStoreFileAcrossEngines) {
  const auto dir = std::filesystem::temp_directory_path() / ("kltce_capi_store_" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  const std::string path = (dir / "counters.db").string();
  for (int run = 0; run < 2; ++run) {
    Host host;
    kltce_config config = host.config();
    config.store_path = path.c_str();
    Engine engine(config);
    ASSERT_EQ(engine.status, KLTCE_OK) << kltce_last_error();
    ASSERT_EQ(kltce_engine_parse(engine.handle, kDocument.c_str()), KLTCE_OK);
    ASSERT_EQ(kltce_engine_wait_idle(engine.handle), KLTCE_OK);
    ASSERT_EQ(kltce_engine_deliver_event(engine.handle, 1, "Home", nullptr), KLTCE_OK);
    ASSERT_EQ(kltce_engine_drain(engine.handle), KLTCE_OK);
    // The second engine reads the display the first one counted: the day limit holds.
    EXPECT_EQ(host.takeDisplays().size(), run == 0 ? 1u : 0u) << "run " << run;
    ASSERT_EQ(kltce_engine_count_display(engine.handle, "home_offer"), KLTCE_OK);
    ASSERT_EQ(kltce_engine_close(engine.handle), KLTCE_OK);
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
