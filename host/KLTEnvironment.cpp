#include "host/KLTEnvironment.h"

#include <filesystem>

std::shared_ptr<KLTEnvironment> KLTEnvironment::make(KLTEnvironment parts) {
  auto e = std::make_shared<KLTEnvironment>(std::move(parts));
  if (!e->clock) e->clock = std::make_shared<KLTRealClock>();
  if (!e->store) e->store = std::make_shared<KLTUserDefaults>(std::filesystem::path());
  if (!e->logSink) e->logSink = KLTLog::sinkSeam().processDefault();
  if (!e->logLevel) e->logLevel = std::make_shared<std::atomic<long>>(2);
  if (!e->bundle) e->bundle = std::make_shared<KLTBundle>();
  if (!e->device) e->device = std::make_shared<KLTDeviceFacts>();
  if (!e->controller) e->controller = std::make_shared<KLTController>();
  return e;
}

KLTEnvironment::Scope::Scope(const KLTEnvironment& e)
    : clock_(&e.clock),
      store_(&e.store),
      sink_(&e.logSink),
      level_(&e.logLevel),
      bundle_(&e.bundle),
      device_(&e.device),
      controller_(&e.controller) {}
