// A generator of campaign documents, device profiles and event streams shaped like a real app's,
// for benchmarks that must not rest on a stream made to suit the engine (bench/gen_events.h sends
// each event to one listener). Everything is made in memory from a seed: the same options give the
// same document and stream, byte for byte, at every run (the popularity weights come from the C
// library's pow(), so another C library might move a draw that falls on a boundary).
//
// The shape:
// - 150 event names (screens, app events, client events) ranked by popularity, a few famous ones
//   first (the home screen, app_open, product views, a purchase...). Campaigns choose the names
//   their conditions listen to, and the stream its events, with a Zipf-like skew, so many
//   campaigns listen to the same few popular events; the tail is heard by few or none.
// - Campaigns of one to three conditions (AND, sometimes OR), counted GTE 1, GTE 2-5 or EQ 1-3,
//   some with attribute rules on the event (plain values and typed "n"/"s" rules); triggers that
//   arm them at start, on a screen or on an app event with trigger data; caps of every usual form
//   (overall, per session, with a day limit), so capped campaigns keep completing and the engine
//   logs each refusal; a few daily windows, audience rules on the user and session, version
//   rules, campaigns disabled, out of their dates or for another country.
// - Sessions of 20 to 400 events 1 to 5 s apart, begun by a "new_session" line and app_open,
//   separated by 10 minutes to 6 hours; presence events and events no campaign listens to.
//
// With the defaults (1,000 campaigns), `gen_realistic --shape` measures the stream's shape through
// the engine's decision records; bench/README.md gives the figures.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/KLTValue.h"

namespace genrealistic {

inline constexpr int64_t kStartMillis = 1795330800000;  // 2026-11-22T07:00:00Z

struct Options {
  int campaigns = 1000;
  int events = 200'000;      // host event lines; session and presence lines come on top
  uint64_t seed = 1;
  double listenSkew = 0.8;   // Zipf exponent of the names conditions and triggers listen to
  double eventSkew = 1.0;    // Zipf exponent of the names events carry
};

// A small deterministic generator (splitmix64): the same sequence on every platform.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // 0 <= result < n.
  int below(int n) { return static_cast<int>(next() % static_cast<uint64_t>(n)); }
  // lo <= result <= hi.
  int between(int lo, int hi) { return lo + below(hi - lo + 1); }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  bool chance(double p) { return unit() < p; }

 private:
  uint64_t state_;
};

// Ranks 0..n-1 drawn with weight 1 / (rank + 1)^skew.
class Zipf {
 public:
  Zipf(int n, double skew) {
    double sum = 0;
    for (int r = 0; r < n; ++r) cumulative_.push_back(sum += 1.0 / std::pow(r + 1, skew));
    for (double& c : cumulative_) c /= sum;
  }
  int pick(Random& random) const {
    const auto it = std::upper_bound(cumulative_.begin(), cumulative_.end(), random.unit());
    return static_cast<int>(std::min<std::ptrdiff_t>(it - cumulative_.begin(), std::ssize(cumulative_) - 1));
  }

 private:
  std::vector<double> cumulative_;
};

enum class Kind { Activity, App, Client };

inline constexpr unsigned long codeOf(Kind k) { return k == Kind::Activity ? 1 : k == Kind::App ? 4 : 5; }

struct EventName {
  Kind kind;
  std::string name;
};

// The names by popularity, most popular first.
inline const std::vector<EventName>& eventNames() {
  static const std::vector<EventName> names = [] {
    std::vector<EventName> out = {
        {Kind::Activity, "Home"},        {Kind::App, "app_open"},        {Kind::Activity, "Product"},
        {Kind::App, "product_view"},     {Kind::Client, "content_loaded"}, {Kind::App, "add_to_cart"},
        {Kind::Activity, "Search"},      {Kind::App, "purchase"},        {Kind::Client, "article_read"},
        {Kind::Activity, "Cart"},        {Kind::App, "search"},          {Kind::Activity, "Checkout"},
        {Kind::Client, "push_received"}, {Kind::App, "share"},           {Kind::Activity, "Profile"},
        {Kind::App, "video_play"},       {Kind::Client, "sync"},         {Kind::Activity, "Settings"},
        {Kind::App, "level_up"},         {Kind::App, "login"},
    };
    for (int r = static_cast<int>(out.size()); r < 150; ++r) {
      const std::string n = std::to_string(r);
      switch (r % 3) {
        case 0: out.push_back({Kind::Activity, "Screen" + n}); break;
        case 1: out.push_back({Kind::App, "feature_" + n}); break;
        default: out.push_back({Kind::Client, "client_" + n}); break;
      }
    }
    return out;
  }();
  return names;
}

inline std::string conditionType(Kind k) {
  return k == Kind::Activity ? "activity_event" : k == Kind::App ? "app_event" : "client_event";
}

// Whether events of this name carry a "slug" (half of the client events do) or nothing.
inline bool clientHasAttributes(int rank) { return rank % 2 == 0; }

// One condition's listening, as the generator made it: campaign `campaign`'s condition number
// `condition` (in document order) counts events of this code and name.
struct Listening {
  unsigned long code;
  std::string name;
};

struct Document {
  KLTValue value;
  // conditions[i][j]: what condition j of campaign "rc-<i>" listens to.
  std::vector<std::vector<Listening>> conditions;
};

// An attribute rule a condition of the name at this rank may carry; null: none fits.
inline KLTValue attributeRule(int rank, Random& random) {
  const EventName& e = eventNames()[static_cast<std::size_t>(rank)];
  auto typed = [](const char* t, const char* op, KLTValue val) {
    return KLTValue{{"t", t}, {"op", op}, {"val", std::move(val)}};
  };
  if (e.name == "purchase") {
    return random.chance(0.5) ? KLTValue{{"amount", typed("n", "GTE", random.chance(0.5) ? 50 : 100)}}
                              : KLTValue{{"plan", "gold"}};
  }
  if (e.kind == Kind::App) {
    switch (random.below(3)) {
      case 0: return KLTValue{{"source", "push"}};
      case 1: return KLTValue{{"value", typed("n", "GTE", random.between(10, 60))}};
      default: return KLTValue{{"source", typed("s", "NEQ", "deeplink")}};
    }
  }
  if (e.kind == Kind::Client && clientHasAttributes(rank)) {
    return random.chance(0.5) ? KLTValue{{"slug", typed("s", "EQ", std::string(1, static_cast<char>('a' + random.below(4))))}}
                              : KLTValue{{"value", typed("n", "LT", 50)}};
  }
  return KLTValue();
}

inline KLTValue timeBounds(Random& random) {
  // Most conditions hold through the campaign's dates; a few stop a day into the stream.
  const int64_t upper = random.chance(0.05) ? kStartMillis + 86'400'000 : int64_t{1830297599000};
  return KLTValue{{"lower", int64_t{1767225600000}}, {"upper", upper}};
}

// A condition's trigger: three in four arm it at start, the others on a popular screen or on a
// popular app event that came from a push (trigger data {"source": "push"}).
inline KLTValue trigger(const Zipf& listen, Random& random) {
  const double p = random.unit();
  if (p < 0.75) return KLTValue{{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}};
  const auto& names = eventNames();
  // Drawn as the names conditions listen to are, until one of the wanted kind comes up.
  for (;;) {
    const int rank = listen.pick(random);
    const EventName& e = names[static_cast<std::size_t>(rank)];
    if (p < 0.9 && e.kind == Kind::Activity) {
      return KLTValue{{"event_type", "activity_event"}, {"activity", e.name},
                      {"details", {{"additional_info", KLTValue::object()}}}, {"time_bounds", timeBounds(random)}};
    }
    if (p >= 0.9 && e.kind == Kind::App && e.name != "purchase") {
      return KLTValue{{"event_type", "app_event"},
                      {"details", {{"name", e.name}, {"additional_info", {{"source", "push"}}}}},
                      {"time_bounds", timeBounds(random)}};
    }
  }
}

// A campaign's cap: overall, per session, or overall with a day limit; null, with capped false,
// for about one campaign in seven.
inline KLTValue frequency(Random& random, bool& capped) {
  capped = true;
  const double p = random.unit();
  if (p < 0.45) return KLTValue{{"validity", "OVERALL"}, {"count", random.between(1, 5)}};
  if (p < 0.65) return KLTValue{{"validity", "SESSION"}, {"count", random.between(1, 2)}};
  if (p < 0.85) return KLTValue{{"validity", "OVERALL"}, {"count", random.between(3, 10)}, {"day_lmt", 1}};
  capped = false;
  return KLTValue();
}

inline Document campaignDocument(const Options& options) {
  Random random(options.seed * 0x2545F4914F6CDD1Dull + 1);
  const Zipf listen(static_cast<int>(eventNames().size()), options.listenSkew);
  static const char* kTypes[] = {"IN_APP", "IN_APP", "IN_APP", "SURVEY", "IN_LINE"};
  static const char* kDisplays[] = {"banner", "modal", "fullscreen"};
  Document doc;
  KLTValue configs = KLTValue::array();
  for (int i = 0; i < options.campaigns; ++i) {
    bool capped = true;
    KLTValue cap = frequency(random, capped);
    const int count = random.chance(0.55) ? 1 : random.chance(0.78) ? 2 : 3;
    KLTValue conditions = KLTValue::array();
    std::vector<Listening> listening;
    for (int j = 0; j < count; ++j) {
      const int rank = listen.pick(random);
      const EventName& e = eventNames()[static_cast<std::size_t>(rank)];
      // Uncapped campaigns are one-shot (EQ): nobody ships a message that shows at every event.
      const double c = random.unit();
      const KLTValue countConfig = !capped || c >= 0.5 ? KLTValue{{"count", random.between(1, 3)}, {"operator", "EQ"}}
                                   : c < 0.34         ? KLTValue{{"count", 1}, {"operator", "GTE"}}
                                                      : KLTValue{{"count", random.between(2, 5)}, {"operator", "GTE"}};
      KLTValue details{{"additional_info", KLTValue::object()}};
      if (e.kind != Kind::Activity) details["name"] = e.name;
      if (random.chance(0.35)) {
        KLTValue rule = attributeRule(rank, random);
        if (!rule.is_null()) details["additional_info"] = std::move(rule);
      }
      KLTValue condition{{"event_type", conditionType(e.kind)}};
      if (e.kind == Kind::Activity) condition["activity"] = e.name;
      condition["details"] = std::move(details);
      condition["time_bounds"] = timeBounds(random);
      condition["count_config"] = countConfig;
      condition["combine_operator"] = random.chance(0.85) ? "AND" : "OR";
      condition["trigger"] = trigger(listen, random);
      conditions.push_back(std::move(condition));
      listening.push_back({codeOf(e.kind), e.name});
    }
    const std::string id = "rc-" + std::to_string(i);
    KLTValue audience{{"attributes", {{"user", KLTValue::array()}, {"session", KLTValue::array()}}}};
    const double a = random.unit();
    if (a < 0.15) {
      audience["attributes"]["user"].push_back({{"name", "country"}, {"value", KLTValue::array({"FR", "DE"})}, {"operator", "EQ"}});
    } else if (a < 0.20) {
      audience["attributes"]["user"].push_back({{"name", "country"}, {"value", KLTValue::array({"US"})}, {"operator", "EQ"}});
    } else if (a < 0.25) {
      audience["attributes"]["session"].push_back({{"name", "channel"}, {"value", KLTValue::array({"paid"})}, {"operator", "NEQ"}});
    }
    const double v = random.unit();
    if (v < 0.20) audience["ver"] = {{"val", "2.0"}, {"op", "GTE"}};
    if (v >= 0.20 && v < 0.23) audience["ver"] = {{"val", "3.0"}, {"op", "GTE"}};
    KLTValue c{{"_id", id},
               {"prio", random.below(10)},
               {"enabled", !random.chance(0.02)},
               {"audience", std::move(audience)},
               {"validity",
                {{"start_date", "2026-01-01T00:00:00Z"},
                 {"end_date", random.chance(0.03) ? "2026-06-30T23:59:59Z" : "2027-12-31T23:59:59Z"}}}};
    if (!cap.is_null()) c["frequency"] = std::move(cap);
    if (random.chance(0.05)) {
      c["time_limits_in_day"] = true;
      c["time_limits"] = {{"start_time", "08:00"}, {"end_time", "22:00"}};
    }
    c["meta"] = {{"type", kTypes[random.below(5)]}};
    c["ui"] = {{"display_type", kDisplays[random.below(3)]}};
    c["conditions"] = std::move(conditions);
    configs.push_back(std::move(c));
    doc.conditions.push_back(std::move(listening));
  }
  doc.value = KLTValue{{"configs", std::move(configs)}};
  return doc;
}

// The device the stream comes from: the user and session the audience rules read.
inline KLTValue profile() {
  return KLTValue{{"device_model", "iPhone14,2"},
                  {"app_version", "2.4.1"},
                  {"first_session", false},
                  {"time_zone", "Europe/Paris"},
                  {"user", {{"attributes", {{"country", "FR"}, {"plan", "gold"}}}, {"custom_info", {{"first_name", "Camille"}}}}},
                  {"session", {{"attributes", {{"channel", "organic"}}}, {"custom_info", KLTValue::object()}}}};
}

// The attributes an event of this name carries, as JSON text ("" for none).
inline std::string eventAttributes(int rank, Random& random) {
  const EventName& e = eventNames()[static_cast<std::size_t>(rank)];
  static const char* kSources[] = {"organic", "organic", "organic", "push", "deeplink"};
  if (e.name == "purchase") {
    static const char* kPlans[] = {"gold", "silver", "free"};
    return "{\"plan\":\"" + std::string(kPlans[random.below(3)]) + "\",\"amount\":" + std::to_string(random.between(5, 300)) +
           ",\"currency\":\"EUR\"}";
  }
  if (e.kind == Kind::App) {
    return "{\"source\":\"" + std::string(kSources[random.below(5)]) + "\",\"value\":" + std::to_string(random.below(100)) +
           (random.chance(0.3) ? ",\"first\":true}" : "}");
  }
  if (e.kind == Kind::Client && clientHasAttributes(rank)) {
    return "{\"slug\":\"" + std::string(1, static_cast<char>('a' + random.below(8))) + "\",\"value\":" +
           std::to_string(random.below(100)) + "}";
  }
  return "";
}

// The stream, JSON Lines with epoch-millisecond times: options.events host events in sessions,
// each session begun by a "new_session" line.
inline std::string eventStream(const Options& options) {
  Random random(options.seed * 0x9E3779B97F4A7C15ull + 7);
  const Zipf pickName(static_cast<int>(eventNames().size()), options.eventSkew);
  std::string out;
  out.reserve(static_cast<std::size_t>(options.events) * 96);
  int64_t t = kStartMillis;
  int left = 0;  // events left in the session
  auto line = [&out, &t](const std::string& body) { out += "{\"t\":" + std::to_string(t) + "," + body + "}\n"; };
  auto event = [&line](Kind kind, const std::string& name, const std::string& attributes) {
    static const char* kTypes[] = {"activity", "app", "client"};
    line("\"type\":\"" + std::string(kTypes[static_cast<int>(kind)]) + "\",\"name\":\"" + name + "\"" +
         (attributes.empty() ? "" : ",\"attributes\":" + attributes));
  };
  for (int e = 0; e < options.events; ++e) {
    if (left == 0) {
      t += random.between(600, 6 * 3600) * int64_t{1000};
      line("\"action\":\"new_session\",\"attributes\":{\"channel\":\"" + std::string(random.chance(0.8) ? "organic" : "paid") + "\"}");
      left = random.between(20, 400);
      event(Kind::App, "app_open", eventAttributes(1, random));
      --left;
      continue;
    }
    t += random.between(1000, 5000);
    --left;
    const double p = random.unit();
    if (p < 0.02) {
      line("\"type\":\"presence\"");
    } else if (p < 0.05) {
      event(Kind::App, "heartbeat", "{\"battery\":" + std::to_string(random.below(100)) + "}");
    } else {
      const int rank = pickName.pick(random);
      const EventName& name = eventNames()[static_cast<std::size_t>(rank)];
      event(name.kind, name.name, eventAttributes(rank, random));
    }
  }
  return out;
}

}  // namespace genrealistic
