// The C interface's engine handle: one KLTContextEvaluator instance over an environment built from
// the host's kltce_config, and the entry points of include/kltce/kltce.h over it.
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <type_traits>

#include <kltce/kltce.h>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "bindings/c/kltce_host.h"
#include "bindings/c/kltce_input.h"
#include "bindings/c/kltce_status.h"
#include "platform/KLTDrainedSerialQueue.h"

using kltce::capi::fail;
using kltce::capi::guarded;
using kltce::capi::JsonKind;
using kltce::capi::readJson;
using kltce::capi::readText;

// Calls in flight are counted so that kltce_engine_close() can wait for them before it tears the
// engine down: a call never meets a half-destroyed engine, and the engine's last reference is
// never dropped by a callback on its own queue.
struct kltce_engine {
  std::mutex mutex;
  std::condition_variable calmed;
  int active = 0;
  bool closed = false;
  std::shared_ptr<KLTContextEvaluator> engine;
  std::shared_ptr<KLTEnvironment> environment;
  std::shared_ptr<KLTDrainedSerialQueue> drained;  // when the host drains the queue
  std::shared_ptr<kltce::capi::Gate> gate = std::make_shared<kltce::capi::Gate>();
};

namespace {

// One call's hold on an open engine.
class Use {
 public:
  explicit Use(kltce_engine* handle) : handle_(handle) {
    if (!handle) {
      status_ = fail(KLTCE_ERROR_NULL_HANDLE, "the engine handle is NULL");
      return;
    }
    std::lock_guard lock(handle->mutex);
    if (handle->closed) {
      status_ = fail(KLTCE_ERROR_CLOSED, "the engine is closed");
      return;
    }
    ++handle->active;
    held_ = true;
  }
  ~Use() {
    if (!held_) return;
    std::lock_guard lock(handle_->mutex);
    if (--handle_->active == 0) handle_->calmed.notify_all();
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  kltce_status status() const { return status_; }
  KLTContextEvaluator& engine() const { return *handle_->engine; }
  KLTEnvironment& environment() const { return *handle_->environment; }
  kltce_engine& handle() const { return *handle_; }

 private:
  kltce_engine* handle_;
  kltce_status status_ = KLTCE_OK;
  bool held_ = false;
};

bool onOwnQueue(const kltce_engine& handle) {
  return handle.engine && KLTContextEvaluator::bound() == handle.engine.get();
}

// The environment a config describes; the adapters hold the handle's gate.
kltce_status makeEnvironment(const kltce_config& config, const std::shared_ptr<kltce::capi::Gate>& gate,
                             KLTEnvironment& e, std::shared_ptr<kltce::capi::CallbackClock>& callbackClock) {
  std::shared_ptr<const KLTTimeZone> zone;
  if (config.time_zone) {
    std::string name;
    if (kltce_status s = readText(config.time_zone, "time_zone", name); s != KLTCE_OK) return s;
    zone = KLTTimeZone::named(name);
    if (!zone) return fail(KLTCE_ERROR_INVALID_ARGUMENT, "time_zone: unknown time zone \"" + name + "\"");
  } else {
    zone = KLTTimeZone::system();  // safe from two threads at once
  }
  if (config.clock) {
    callbackClock = std::make_shared<kltce::capi::CallbackClock>(config.clock, config.clock_context, zone,
                                                                 config.virtual_timers != 0, gate);
    e.clock = callbackClock;
  } else {
    e.clock = std::make_shared<KLTRealClock>(zone);
  }
  std::string path;
  if (config.store_path && *config.store_path) {
    if (kltce_status s = readText(config.store_path, "store_path", path); s != KLTCE_OK) return s;
  }
  e.store = std::make_shared<KLTUserDefaults>(std::filesystem::path(path));
  if (!e.store->unusable().empty()) return fail(KLTCE_ERROR_STORE, "store_path: " + e.store->unusable());
  if (config.log) e.logSink = std::make_shared<kltce::capi::CallbackLogSink>(config.log, config.log_context, gate);
  if (config.log_level < 0) return fail(KLTCE_ERROR_INVALID_ARGUMENT, "log_level must be 0 or more");
  e.logLevel = std::make_shared<std::atomic<long>>(config.log_level);
  e.bundle = std::make_shared<KLTBundle>();
  if (config.app_version) {
    std::string version;
    if (kltce_status s = readText(config.app_version, "app_version", version); s != KLTCE_OK) return s;
    e.bundle->setVersion(version);
  }
  e.device = std::make_shared<KLTDeviceFacts>();
  if (config.device_model) {
    std::string model;
    if (kltce_status s = readText(config.device_model, "device_model", model); s != KLTCE_OK) return s;
    e.device->setDeviceName(model);
  }
  e.device->setFirstSession(config.first_session != 0);
  e.controller = std::make_shared<KLTController>();
  if (config.dispatch) {
    e.controller->setDispatchHandler([fn = config.dispatch, context = config.dispatch_context,
                                      gate](std::shared_ptr<KLTDisplayEvent> event) {
      if (!event || !gate->open.load(std::memory_order_acquire)) return;
      const std::string className(event->className());
      const std::string info = event->info().dump(-1, ' ', false, KLTValue::error_handler_t::replace);
      fn(context, className.c_str(), info.c_str(), KLTClock::epochMillis(KLTClock::current()->now()));
    });
  }
  return KLTCE_OK;
}

// Merges a JSON object's keys through set(key, value).
template <class Set>
kltce_status mergeObject(kltce_engine* handle, const char* json, const char* what, Set set) {
  return guarded(what, [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    KLTValue object;
    if (kltce_status s = readJson(json, what, JsonKind::Object, false, object); s != KLTCE_OK) return s;
    for (auto& [key, value] : object.items()) set(use.environment(), key, std::move(value));
    return KLTCE_OK;
  });
}

kltce_status waitForQueue(kltce_engine* handle, bool drainOnly, const char* call) {
  return guarded(call, [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    if (onOwnQueue(use.handle())) {
      return fail(KLTCE_ERROR_INVALID_ARGUMENT, std::string(call) + ": not from a callback (the queue cannot wait for itself)");
    }
    if (drainOnly && !use.handle().drained) {
      return fail(KLTCE_ERROR_INVALID_ARGUMENT, std::string(call) + ": the engine runs on a thread of its own, not a drained queue");
    }
    const bool idle = use.handle().drained ? use.handle().drained->drain() : use.engine().ceOpsSerialQueue()->waitUntilIdle();
    if (!idle) {
      return fail(KLTCE_ERROR_BLOCKED,
                  std::string(call) + ": the engine's queue is held for good by a timer condition that never ends");
    }
    return KLTCE_OK;
  });
}

}  // namespace

extern "C" {

kltce_status kltce_config_init(kltce_config* config) {
  if (!config) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_config_init: config is NULL");
  *config = kltce_config{};
  config->log_level = 2;
  config->queue = KLTCE_QUEUE_THREAD;
  return KLTCE_OK;
}

kltce_status kltce_engine_create(const kltce_config* config, kltce_engine** out) {
  if (!out) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_engine_create: out is NULL");
  *out = nullptr;
  if (!config) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_engine_create: config is NULL");
  return guarded("kltce_engine_create", [&] {
    // A C host may store any number in the field: read it as a number before it is read as the
    // enumeration, whose values outside its range C++ leaves undefined.
    std::underlying_type_t<kltce_queue_kind> queueKind;
    std::memcpy(&queueKind, &config->queue, sizeof queueKind);
    if (queueKind != KLTCE_QUEUE_THREAD && queueKind != KLTCE_QUEUE_DRAINED) {
      return fail(KLTCE_ERROR_INVALID_ARGUMENT, "kltce_engine_create: unknown queue kind");
    }
    auto handle = std::make_unique<kltce_engine>();
    KLTEnvironment environment;
    std::shared_ptr<kltce::capi::CallbackClock> callbackClock;
    if (kltce_status s = makeEnvironment(*config, handle->gate, environment, callbackClock); s != KLTCE_OK) return s;
    std::shared_ptr<KLTSerialQueue> queue;
    if (queueKind == KLTCE_QUEUE_DRAINED) {
      handle->drained = std::make_shared<KLTDrainedSerialQueue>(kKLTCEOpsSerialQueue);
      queue = handle->drained;
      // Tasks run on the host's thread, which must not block for a timer that never ends.
      if (callbackClock) callbackClock->setUnwindEndlessWaits(true);
    }
    handle->engine = KLTContextEvaluator::create(std::move(environment), std::move(queue));
    handle->environment = handle->engine->environment();
    *out = handle.release();
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_close(kltce_engine* handle) {
  if (!handle) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_engine_close: the engine handle is NULL");
  return guarded("kltce_engine_close", [&] {
    std::shared_ptr<KLTContextEvaluator> engine;
    std::shared_ptr<KLTEnvironment> environment;
    {
      std::unique_lock lock(handle->mutex);
      if (handle->closed) return fail(KLTCE_ERROR_CLOSED, "kltce_engine_close: the engine is already closed");
      if (onOwnQueue(*handle)) return fail(KLTCE_ERROR_INVALID_ARGUMENT, "kltce_engine_close: not from a callback");
      handle->closed = true;
      handle->calmed.wait(lock, [&] { return handle->active == 0; });
      engine = std::move(handle->engine);
      environment = std::move(handle->environment);
    }
    engine.reset();  // runs what is queued, then frees the rule objects
    handle->gate->open.store(false, std::memory_order_release);
    if (!environment->store->synchronize()) {
      return fail(KLTCE_ERROR_STORE, "kltce_engine_close: the counters could not be saved: " + environment->store->unusable());
    }
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_destroy(kltce_engine* handle) {
  if (!handle) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_engine_destroy: the engine handle is NULL");
  bool open = false;
  {
    std::lock_guard lock(handle->mutex);
    if (onOwnQueue(*handle)) return fail(KLTCE_ERROR_INVALID_ARGUMENT, "kltce_engine_destroy: not from a callback");
    open = !handle->closed;
  }
  const kltce_status closed = open ? kltce_engine_close(handle) : KLTCE_OK;
  delete handle;
  return closed;
}

kltce_status kltce_engine_parse(kltce_engine* handle, const char* document_json) {
  return guarded("kltce_engine_parse", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    KLTValue document;
    if (kltce_status s = readJson(document_json, "document", JsonKind::Document, false, document); s != KLTCE_OK) return s;
    use.engine().parseConfiguration(std::move(document));
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_deliver_event(kltce_engine* handle, unsigned long code, const char* name,
                                        const char* attributes_json) {
  return guarded("kltce_engine_deliver_event", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    std::string identifier;
    if (name) {
      if (kltce_status s = readText(name, "event name", identifier); s != KLTCE_OK) return s;
    }
    KLTValue attributes;
    if (kltce_status s = readJson(attributes_json, "event attributes", JsonKind::Object, true, attributes); s != KLTCE_OK) {
      return s;
    }
    use.environment().controller->deliverEvent(KLTEvent::make(code, std::move(identifier), std::move(attributes)));
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_count_display(kltce_engine* handle, const char* campaign_id) {
  return guarded("kltce_engine_count_display", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    std::string id;
    if (kltce_status s = readText(campaign_id, "campaign id", id); s != KLTCE_OK) return s;
    use.engine().updateCountForConfigWithIdentifier(std::move(id));
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_set_user_attributes(kltce_engine* handle, const char* attributes_json) {
  return mergeObject(handle, attributes_json, "user attributes", [](KLTEnvironment& e, const std::string& k, KLTValue v) {
    e.controller->user()->setUserAttribute(k, std::move(v));
  });
}

kltce_status kltce_engine_set_session_attributes(kltce_engine* handle, const char* attributes_json) {
  return mergeObject(handle, attributes_json, "session attributes", [](KLTEnvironment& e, const std::string& k, KLTValue v) {
    e.controller->session()->setSessionAttribute(k, std::move(v));
  });
}

kltce_status kltce_engine_set_user_custom_info(kltce_engine* handle, const char* custom_info_json) {
  return mergeObject(handle, custom_info_json, "user custom info", [](KLTEnvironment& e, const std::string& k, KLTValue v) {
    e.controller->user()->setCustomInfoValue(k, std::move(v));
  });
}

kltce_status kltce_engine_set_session_custom_info(kltce_engine* handle, const char* custom_info_json) {
  return mergeObject(handle, custom_info_json, "session custom info", [](KLTEnvironment& e, const std::string& k, KLTValue v) {
    e.controller->session()->setCustomInfoValue(k, std::move(v));
  });
}

kltce_status kltce_engine_new_session(kltce_engine* handle, const char* attributes_json, const char* custom_info_json,
                                      int first_session) {
  return guarded("kltce_engine_new_session", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    KLTValue attributes, customInfo;
    if (kltce_status s = readJson(attributes_json, "session attributes", JsonKind::Object, true, attributes); s != KLTCE_OK) {
      return s;
    }
    if (kltce_status s = readJson(custom_info_json, "session custom info", JsonKind::Object, true, customInfo); s != KLTCE_OK) {
      return s;
    }
    auto session = std::make_shared<KLTSession>();
    session->setSessionAttributes(std::move(attributes));
    session->setCustomInfo(std::move(customInfo));
    use.environment().controller->setSession(std::move(session));
    use.environment().device->setFirstSession(first_session != 0);
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_replace_macros(kltce_engine* handle, const char* text, char** out) {
  if (out) *out = nullptr;
  return guarded("kltce_engine_replace_macros", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    if (!out) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_engine_replace_macros: out is NULL");
    std::string input;
    if (kltce_status s = readText(text, "text", input); s != KLTCE_OK) return s;
    const std::optional<std::string> filled = use.engine().replaceMacros(KLTValue(std::move(input)));
    if (!filled) return KLTCE_OK;
    *out = kltce::capi::copyOut(*filled);
    return *out ? KLTCE_OK : fail(KLTCE_ERROR_OUT_OF_MEMORY, "kltce_engine_replace_macros: out of memory");
  });
}

kltce_status kltce_engine_set_decision_callback(kltce_engine* handle, kltce_decision_fn callback, void* context) {
  return guarded("kltce_engine_set_decision_callback", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    std::shared_ptr<KLTCEDecisionObserver> observer;
    if (callback) observer = std::make_shared<kltce::capi::CallbackDecisionObserver>(callback, context, use.handle().gate);
    use.engine().setDecisionObserver(std::move(observer));
    return KLTCE_OK;
  });
}

kltce_status kltce_engine_check(kltce_engine* handle, const char* document_json, char** findings_json) {
  if (findings_json) *findings_json = nullptr;
  return guarded("kltce_engine_check", [&] {
    Use use(handle);
    if (use.status() != KLTCE_OK) return use.status();
    if (!findings_json) return fail(KLTCE_ERROR_NULL_HANDLE, "kltce_engine_check: findings_json is NULL");
    KLTValue document;
    if (kltce_status s = readJson(document_json, "document", JsonKind::Document, false, document); s != KLTCE_OK) return s;
    KLTValue campaigns = KLTValue::array();
    for (const KLTValue& config : klt::valueForKey(document, kKLTConfigs)) {
      const KLTCEAdmission admission = use.engine().admissionOfConfiguration(config);
      KLTValue finding = KLTValue::object();
      finding["id"] = klt::textForm(klt::valueForKey(config, kKLTConfigId));
      finding["admitted"] = admission.admitted;
      if (!admission.admitted) finding["reason"] = admission.reason;
      campaigns.push_back(std::move(finding));
    }
    KLTValue findings = KLTValue::object();
    findings["campaigns"] = std::move(campaigns);
    *findings_json = kltce::capi::copyOut(findings.dump(-1, ' ', false, KLTValue::error_handler_t::replace));
    return *findings_json ? KLTCE_OK : fail(KLTCE_ERROR_OUT_OF_MEMORY, "kltce_engine_check: out of memory");
  });
}

kltce_status kltce_engine_wait_idle(kltce_engine* handle) { return waitForQueue(handle, false, "kltce_engine_wait_idle"); }

kltce_status kltce_engine_drain(kltce_engine* handle) { return waitForQueue(handle, true, "kltce_engine_drain"); }

}  // extern "C"
