#include "testsupport/KLTTestHost.h"

#include <cstdlib>
#include <system_error>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"

KLTTempDir::KLTTempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "kltce-test-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) {
    tmpl = (std::filesystem::temp_directory_path() / ("kltce-test-" + std::to_string(std::rand()))).string();
    std::filesystem::create_directories(tmpl);
  }
  path_ = tmpl;
}

KLTTempDir::~KLTTempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

KLTTestHost::KLTTestHost(long logLevel)
    : capture_(logLevel),
      clock_(std::make_shared<KLTVirtualClock>()),
      previousClock_(KLTClock::setCurrent(clock_)),
      storePath_(dir_.path() / "store.kltstore"),
      store_(std::make_shared<KLTUserDefaults>(storePath_)),
      previousStore_(KLTUserDefaults::setStandardUserDefaults(store_)) {
  auto& c = KLTController::sharedController();
  c.removeAllListeners();
  c.setUser(nullptr);
  c.setSession(nullptr);
  c.setDispatchHandler([this](std::shared_ptr<KLTDisplayEvent> e) {
    KLTDispatchedEvent d{std::string(e->className()), e->info(), KLTController::sharedController().currentSDKTimeInMillis()};
    std::lock_guard lock(mutex_);
    dispatched_.push_back(std::move(d));
  });
  KLTUtilities::setDeviceName("iPhone14,2");
  KLTUtilities::setFirstSession(false);
  KLTBundle::setShortVersionString("1.0");
}

KLTTestHost::~KLTTestHost() {
  // Let queued work finish against this host's fakes before they go.
  KLTContextEvaluator::sharedInstance().ceOpsSerialQueue()->waitUntilIdleFor(std::chrono::seconds(10));
  auto& c = KLTController::sharedController();
  c.setDispatchHandler(nullptr);
  c.removeAllListeners();
  KLTUserDefaults::setStandardUserDefaults(previousStore_);
  KLTClock::setCurrent(previousClock_);
}

void KLTTestHost::reopenStore() {
  store_ = std::make_shared<KLTUserDefaults>(storePath_);
  KLTUserDefaults::setStandardUserDefaults(store_);
}

std::vector<KLTDispatchedEvent> KLTTestHost::dispatched() const {
  std::lock_guard lock(mutex_);
  return dispatched_;
}

void KLTTestHost::clearDispatched() {
  std::lock_guard lock(mutex_);
  dispatched_.clear();
}

std::size_t KLTTestHost::deliver(unsigned long code, std::string identifier, KLTValue info) {
  return KLTController::sharedController().deliverEvent(KLTEvent::make(code, std::move(identifier), std::move(info)));
}

void KLTTestHost::drainEvaluatorQueue() { KLTContextEvaluator::sharedInstance().ceOpsSerialQueue()->waitUntilIdle(); }
