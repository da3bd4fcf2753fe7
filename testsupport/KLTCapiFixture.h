// Fixtures for the tests of the C interface: campaign documents, a host that records what the
// engine's callbacks hand it, and an engine handle that is destroyed with the test.
#pragma once

#include <kltce/kltce.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace capitest {

// An in-app campaign shown when the screen "Home" was seen once, for app versions 2.0 and later,
// at most once a day. 2026-11-22T09:00:00Z is inside its dates.
inline std::string homeOffer(const std::string& id = "home_offer", const std::string& screen = "Home") {
  return R"({"_id":")" + id + R"(","prio":1,"enabled":true,"audience":{"ver":{"val":"2.0","op":"GTE"},"attributes":{"user":[],"session":[]}},)"
         R"("validity":{"start_date":"2026-01-01T00:00:00Z","end_date":"2027-12-31T23:59:59Z"},)"
         R"("frequency":{"validity":"OVERALL","count":5,"day_lmt":1},)"
         R"("conditions":[{"event_type":"activity_event","activity":")" + screen + R"(","details":{"additional_info":{}},)"
         R"("time_bounds":{"lower":1767225600000,"upper":1830297599000},)"
         R"("count_config":{"count":1,"operator":"GTE"},"combine_operator":"AND",)"
         R"("trigger":{"event_type":"app_start","details":{"additional_info":{}}}}],"meta":{"type":"IN_APP"}})";
}

// The same campaign with a survey armed by the app event "order_completed" that fires after an
// idle time of the given milliseconds (a negative one never ends).
inline std::string idleSurvey(long long millis) {
  return R"({"_id":"idle_survey","prio":2,"enabled":true,"audience":{"attributes":{"user":[],"session":[]}},)"
         R"("validity":{"start_date":"2026-01-01T00:00:00Z","end_date":"2027-12-31T23:59:59Z"},)"
         R"("frequency":{"validity":"OVERALL","count":1},"sequence_enabled":true,)"
         R"("conditions":[{"sequence":1,"event_type":"idle_time","details":{"additional_info":{"time":)" +
         std::to_string(millis) + R"(}},"combine_operator":"AND",)"
         R"("trigger":{"event_type":"app_event","details":{"name":"order_completed","additional_info":{}},)"
         R"("time_bounds":{"lower":1767225600000,"upper":1830297599000}}}],)"
         R"("meta":{"type":"SURVEY"}})";
}

inline std::string document(const std::vector<std::string>& campaigns) {
  std::string text = R"({"configs":[)";
  for (std::size_t i = 0; i < campaigns.size(); ++i) text += (i ? "," : "") + campaigns[i];
  return text + "]}";
}

constexpr int64_t kNineUtc = 1795338000000;  // 2026-11-22T09:00:00Z

struct Display {
  std::string className;
  std::string info;
  int64_t time = 0;
};

// What the callbacks received. The clock reads now.
struct Host {
  std::atomic<int64_t> now{kNineUtc};
  std::mutex mutex;
  std::vector<Display> displays;
  std::vector<std::pair<kltce_log_level, std::string>> logs;
  std::vector<std::string> records;

  std::vector<Display> takeDisplays() {
    std::lock_guard lock(mutex);
    return std::move(displays);
  }

  static int64_t clock(void* self) { return static_cast<Host*>(self)->now.load(); }
  static void dispatch(void* self, const char* className, const char* info, int64_t time) {
    auto* h = static_cast<Host*>(self);
    std::lock_guard lock(h->mutex);
    h->displays.push_back({className, info, time});
  }
  static void log(void* self, kltce_log_level level, const char* line, std::size_t length) {
    auto* h = static_cast<Host*>(self);
    std::lock_guard lock(h->mutex);
    h->logs.emplace_back(level, std::string(line, length));
  }
  static void decision(void* self, const char* record) {
    auto* h = static_cast<Host*>(self);
    std::lock_guard lock(h->mutex);
    h->records.emplace_back(record);
  }

  // A configuration with every callback pointing here, app version 2.4.1, virtual timers.
  kltce_config config(kltce_queue_kind queue = KLTCE_QUEUE_DRAINED) {
    kltce_config c;
    kltce_config_init(&c);
    c.app_version = "2.4.1";
    c.time_zone = "UTC";
    c.clock = clock;
    c.clock_context = this;
    c.virtual_timers = 1;
    c.log = log;
    c.log_context = this;
    c.dispatch = dispatch;
    c.dispatch_context = this;
    c.queue = queue;
    return c;
  }
};

// An engine handle destroyed with the object.
class Engine {
 public:
  explicit Engine(const kltce_config& config) { status = kltce_engine_create(&config, &handle); }
  ~Engine() {
    if (handle) kltce_engine_destroy(handle);
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  kltce_engine* handle = nullptr;
  kltce_status status = KLTCE_OK;
};

}  // namespace capitest
