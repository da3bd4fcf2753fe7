// One host event through the C interface (include/kltce/kltce.h) beside the same event through the
// C++ API, in the same process: the cost a C host (or a binding over it) pays for the interface.
//
// Both engines are instances over environments of their own (KLTContextEvaluator::create() and
// kltce_engine_create()) with the realistic document of gen_realistic.h (1,000 or 100 campaigns),
// its profile, a virtual clock set to each event's time, a log sink that receives each formatted
// line and drops it (the host of either API gets its lines: the stream's capped campaigns log a
// refusal at about 18 of every 50 counts), on a queue this thread drains. Each iteration delivers 64
// events of the realistic stream in order (screens, app and client events, with their attributes)
// and drains the queue:
// - BM_Cxx_Event/N: controller->deliverEvent(KLTEvent::make(code, name, attributes)), the
//   attributes a copy of a value the host holds; updateCountForConfigWithIdentifier() per display.
// - BM_C_Event/N: kltce_engine_deliver_event(engine, code, name, attributes as JSON text), the
//   form a C host holds them in, read by the interface at each call; kltce_engine_count_display()
//   per display (the id read from the display event's JSON).
// Items are events; compare the time per item.
#include <benchmark/benchmark.h>
#include <kltce/kltce.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "bench/gen_realistic.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTValueReader.h"
#include "platform/KLTVirtualClock.h"

namespace {

constexpr int kEventsPerBatch = 64;
constexpr int kStreamEvents = 20'000;

struct StreamEvent {
  int64_t millis;
  unsigned long code;
  std::string name;
  std::string attributesText;  // "" for none
  KLTValue attributes;
};

struct Input {
  std::string document;
  std::vector<StreamEvent> events;
};

const Input& input(int campaigns) {
  static std::map<int, Input> made;
  auto [it, fresh] = made.try_emplace(campaigns);
  if (!fresh) return it->second;
  genrealistic::Options options;
  options.campaigns = campaigns;
  options.events = kStreamEvents;
  it->second.document = genrealistic::campaignDocument(options).value.dump();
  const std::string stream = genrealistic::eventStream(options);
  std::size_t start = 0;
  while (start < stream.size()) {
    const std::size_t end = stream.find('\n', start);
    const KLTValue line = klt::readJsonText(std::string_view(stream).substr(start, end - start)).value;
    start = end + 1;
    const KLTValue& type = klt::valueForKey(line, "type");
    if (!type.is_string()) continue;  // session lines
    const std::string& t = type.get_ref<const std::string&>();
    StreamEvent e;
    e.millis = line["t"].get<int64_t>();
    e.code = t == "activity" ? 1 : t == "presence" ? 3 : t == "app" ? 4 : 5;
    if (line.contains("name")) e.name = line["name"].get<std::string>();
    e.attributes = line.contains("attributes") ? line["attributes"] : KLTValue::object();
    if (line.contains("attributes")) e.attributesText = e.attributes.dump();
    it->second.events.push_back(std::move(e));
  }
  return it->second;
}

// Gets every line formatted (KLTLogSink's own writeLine()), as a host's sink does.
class DroppingSink final : public KLTLogSink {
 public:
  void write(std::string_view line) override { benchmark::DoNotOptimize(line.data()); }
};

void BM_Cxx_Event(benchmark::State& state) {
  const Input& in = input(static_cast<int>(state.range(0)));
  const KLTValue profile = genrealistic::profile();
  auto clock = std::make_shared<KLTVirtualClock>(KLTTimePoint(std::chrono::milliseconds(in.events[0].millis)),
                                                 KLTTimeZone::named("Europe/Paris"));
  KLTEnvironment parts;
  parts.clock = clock;
  parts.logSink = std::make_shared<DroppingSink>();
  parts.bundle = std::make_shared<KLTBundle>();
  parts.bundle->setVersion(profile["app_version"].get<std::string>());
  parts.device = std::make_shared<KLTDeviceFacts>();
  parts.device->setDeviceName(profile["device_model"].get<std::string>());
  parts.controller = std::make_shared<KLTController>();
  parts.controller->user()->setUserAttributes(profile["user"]["attributes"]);
  parts.controller->session()->setSessionAttributes(profile["session"]["attributes"]);
  std::vector<std::string> shown;
  parts.controller->setDispatchHandler([&shown](std::shared_ptr<KLTDisplayEvent> e) {
    shown.push_back(klt::valueForKey(e->info(), "id").get<std::string>());
  });
  auto queue = std::make_shared<KLTDrainedSerialQueue>("com.kelto.serial.ce_operations");
  clock->setUnwindEndlessWaits(true);
  auto engine = KLTContextEvaluator::create(std::move(parts), queue);
  KLTController& controller = *engine->environment()->controller;
  engine->parseConfiguration(klt::readJsonText(in.document).value);
  queue->drain();
  std::size_t next = 0, displays = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerBatch; ++i) {
      const StreamEvent& e = in.events[next];
      next = (next + 1) % in.events.size();
      clock->setNow(KLTTimePoint(std::chrono::milliseconds(e.millis)));
      controller.deliverEvent(KLTEvent::make(e.code, e.name, e.attributes));
    }
    queue->drain();
    displays += shown.size();
    for (std::string& id : shown) engine->updateCountForConfigWithIdentifier(std::move(id));
    shown.clear();
    queue->drain();
  }
  state.SetItemsProcessed(state.iterations() * kEventsPerBatch);
  state.counters["displays"] = static_cast<double>(displays);
}

struct CHost {
  int64_t now = 0;
  std::vector<std::string> shown;
};

// The id of a display event's info ({"id":"rc-12",...}: the engine writes the id first).
void onDisplay(void* h, const char*, const char* info, int64_t) {
  const std::string_view text(info);
  const std::size_t start = text.find("\"id\":\"") + 6;
  static_cast<CHost*>(h)->shown.emplace_back(text.substr(start, text.find('"', start) - start));
}

void BM_C_Event(benchmark::State& state) {
  const Input& in = input(static_cast<int>(state.range(0)));
  const KLTValue profile = genrealistic::profile();
  const std::string version = profile["app_version"].get<std::string>();
  const std::string model = profile["device_model"].get<std::string>();
  CHost host{in.events[0].millis, {}};
  kltce_config config;
  kltce_config_init(&config);
  config.app_version = version.c_str();
  config.device_model = model.c_str();
  config.time_zone = "Europe/Paris";
  config.clock = [](void* h) { return static_cast<CHost*>(h)->now; };
  config.clock_context = &host;
  config.virtual_timers = 1;
  config.log = [](void*, kltce_log_level, const char*, std::size_t) {};
  config.dispatch = onDisplay;
  config.dispatch_context = &host;
  config.queue = KLTCE_QUEUE_DRAINED;
  kltce_engine* engine = nullptr;
  if (kltce_engine_create(&config, &engine) != KLTCE_OK ||
      kltce_engine_set_user_attributes(engine, profile["user"]["attributes"].dump().c_str()) != KLTCE_OK ||
      kltce_engine_set_session_attributes(engine, profile["session"]["attributes"].dump().c_str()) != KLTCE_OK ||
      kltce_engine_parse(engine, in.document.c_str()) != KLTCE_OK || kltce_engine_drain(engine) != KLTCE_OK) {
    state.SkipWithError(kltce_last_error());
    return;
  }
  std::size_t next = 0, displays = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerBatch; ++i) {
      const StreamEvent& e = in.events[next];
      next = (next + 1) % in.events.size();
      host.now = e.millis;
      kltce_engine_deliver_event(engine, e.code, e.name.c_str(), e.attributesText.empty() ? nullptr : e.attributesText.c_str());
    }
    kltce_engine_drain(engine);
    displays += host.shown.size();
    for (const std::string& id : host.shown) kltce_engine_count_display(engine, id.c_str());
    host.shown.clear();
    kltce_engine_drain(engine);
  }
  state.SetItemsProcessed(state.iterations() * kEventsPerBatch);
  state.counters["displays"] = static_cast<double>(displays);
  kltce_engine_destroy(engine);
}

// A fixed number of batches, the same for both: each run starts a fresh engine and goes once through
// the same 19,200 events, so that both do the same work (early events complete and dispatch more
// than later ones, before the caps fill).
constexpr int kBatches = 300;
BENCHMARK(BM_Cxx_Event)->Arg(1000)->Arg(100)->Unit(benchmark::kMicrosecond)->Iterations(kBatches);
BENCHMARK(BM_C_Event)->Arg(1000)->Arg(100)->Unit(benchmark::kMicrosecond)->Iterations(kBatches);

}  // namespace
