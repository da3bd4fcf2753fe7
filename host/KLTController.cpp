#include "host/KLTController.h"

#include <algorithm>
#include <charconv>
#include <mutex>
#include <optional>

#include "platform/KLTClock.h"

KLTController& KLTController::sharedController() {
  // Never destroyed: listeners and the evaluator live for the rest of the process.
  static KLTController* shared = new KLTController();
  return *shared;
}

KLTSeam<KLTController>& KLTController::seam() {
  static KLTSeam<KLTController> seam([] { return std::shared_ptr<KLTController>(std::shared_ptr<void>(), &sharedController()); });
  return seam;
}

KLTController& KLTController::current() {
  // The shared controller is read without the seam where nothing is bound, as most hosts run.
  return KLTSeam<KLTController>::bound() ? *seam().currentCached() : sharedController();
}

KLTController::KLTController()
    : user_(std::make_shared<KLTUser>()), session_(std::make_shared<KLTSession>()) {}

std::string KLTController::listenerIdentifier(unsigned long code, const KLTValue& name) {
  return std::to_string(code) + "___" + klt::textForm(name);
}

namespace {

// The code of an identifier "<code>___<name>" whose code part is exactly a code's decimal text (as
// listenerIdentifier() and every delivery write it), and the name after the first "___".
std::optional<std::pair<unsigned long, std::string_view>> splitIdentifier(std::string_view identifier) {
  const auto sep = identifier.find("___");
  if (sep == std::string_view::npos || sep == 0) return std::nullopt;
  const std::string_view digits = identifier.substr(0, sep);
  if (digits.size() > 1 && digits[0] == '0') return std::nullopt;
  unsigned long code = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), code);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return std::make_pair(code, identifier.substr(sep + 3));
}

}  // namespace

void KLTController::addUnique(std::shared_ptr<const ListenerList>& slot, std::shared_ptr<KLTEventListener> listener,
                              KLTSerialQueue* queue) {
  if (slot && std::find(slot->listeners.begin(), slot->listeners.end(), listener) != slot->listeners.end()) return;
  // Copy on write: deliveries in progress keep the list they took.
  auto next = slot ? std::make_shared<ListenerList>(*slot) : std::make_shared<ListenerList>();
  if (!next->listeners.empty() && next->queue != queue) queue = nullptr;
  next->queue = queue;
  next->listeners.push_back(std::move(listener));
  slot = std::move(next);
}

void KLTController::registerIdentifer(const std::string& identifier, std::shared_ptr<KLTEventListener> listener) {
  if (!listener) return;
  const auto split = splitIdentifier(identifier);
  if (!split) {
    KLTSerialQueue* queue = listener->eventQueue();  // asked outside the lock: it may reach other objects
    std::unique_lock lock(mutex_);
    addUnique(undeliverable_[identifier], std::move(listener), queue);
    return;
  }
  registerListener(split->first, split->second, std::move(listener));
}

void KLTController::registerListener(unsigned long code, std::string_view name, std::shared_ptr<KLTEventListener> listener) {
  if (!listener) return;
  KLTSerialQueue* queue = listener->eventQueue();
  std::unique_lock lock(mutex_);
  ByName& names = byIdentifier_[code];
  auto it = names.find(name);
  if (it == names.end()) it = names.emplace(std::string(name), nullptr).first;
  addUnique(it->second, std::move(listener), queue);
}

void KLTController::registerForEventWithType(unsigned long eventType, std::shared_ptr<KLTEventListener> listener) {
  if (!listener) return;
  KLTSerialQueue* queue = listener->eventQueue();
  std::unique_lock lock(mutex_);
  addUnique(byType_[eventType], std::move(listener), queue);
}

std::size_t KLTController::deliverEvent(const std::shared_ptr<const KLTEvent>& event) {
  if (!event) return 0;
  std::shared_ptr<const ListenerList> named, typed;
  {
    std::shared_lock lock(mutex_);
    if (auto codes = byIdentifier_.find(event->eventType); codes != byIdentifier_.end()) {
      if (auto it = codes->second.find(std::string_view(event->identifier)); it != codes->second.end()) named = it->second;
    }
    if (auto it = byType_.find(event->eventType); it != byType_.end()) typed = it->second;
  }
  // Listeners that all handle their events on one queue get one batch per event, in the order in
  // which their own onEvent() calls would have posted to it. A lone listener posts its own task,
  // which costs less than a batch of one.
  KLTSerialQueue* queue = named ? named->queue : typed ? typed->queue : nullptr;
  if (named && typed && named->queue != typed->queue) queue = nullptr;
  const std::size_t first = named ? named->listeners.size() : 0;
  const std::size_t total = first + (typed ? typed->listeners.size() : 0);
  if (queue && total > 1) {
    queue->asyncEach(total, [named = std::move(named), typed = std::move(typed), event, first](std::size_t i) {
      (i < first ? named->listeners[i] : typed->listeners[i - first])->handleQueuedEvent(*event);
    });
    return total;
  }
  std::size_t deliveries = 0;
  for (const auto* list : {named.get(), typed.get()}) {
    if (!list) continue;
    for (const auto& listener : list->listeners) {
      listener->onEvent(event);
      ++deliveries;
    }
  }
  return deliveries;
}

int64_t KLTController::currentSDKTimeInMillis() const { return KLTClock::epochMillis(KLTClock::currentNow()); }

void KLTController::dispatchEvent(std::shared_ptr<KLTDisplayEvent> event) {
  std::shared_ptr<DispatchHandler> handler;
  {
    std::shared_lock lock(mutex_);
    handler = dispatchHandler_;
  }
  if (handler && *handler && event) (*handler)(std::move(event));
}

void KLTController::setDispatchHandler(DispatchHandler handler) {
  auto next = handler ? std::make_shared<DispatchHandler>(std::move(handler)) : nullptr;
  std::unique_lock lock(mutex_);
  dispatchHandler_ = std::move(next);
}

std::shared_ptr<KLTUser> KLTController::user() const {
  std::shared_lock lock(mutex_);
  return user_;
}

std::shared_ptr<KLTSession> KLTController::session() const {
  std::shared_lock lock(mutex_);
  return session_;
}

void KLTController::setUser(std::shared_ptr<KLTUser> user) {
  if (!user) user = std::make_shared<KLTUser>();
  std::unique_lock lock(mutex_);
  user_ = std::move(user);
}

void KLTController::setSession(std::shared_ptr<KLTSession> session) {
  if (!session) session = std::make_shared<KLTSession>();
  std::unique_lock lock(mutex_);
  session_ = std::move(session);
}

void KLTController::removeAllListeners() {
  std::unique_lock lock(mutex_);
  generation_.fetch_add(1, std::memory_order_acq_rel);
  for (auto& [code, names] : byIdentifier_) {
    for (auto& [name, list] : names) retired_.push_back(std::move(list));
  }
  for (auto& [key, list] : undeliverable_) retired_.push_back(std::move(list));
  for (auto& [key, list] : byType_) retired_.push_back(std::move(list));
  byIdentifier_.clear();
  undeliverable_.clear();
  byType_.clear();
}

std::size_t KLTController::registrationCount() const {
  std::shared_lock lock(mutex_);
  std::size_t n = 0;
  for (const auto& [code, names] : byIdentifier_) {
    for (const auto& [name, list] : names) n += list ? list->listeners.size() : 0;
  }
  for (const auto& [key, list] : undeliverable_) n += list ? list->listeners.size() : 0;
  for (const auto& [key, list] : byType_) n += list ? list->listeners.size() : 0;
  return n;
}

void KLTController::discardRemovedListeners() {
  std::vector<std::shared_ptr<const ListenerList>> dropped;
  {
    std::unique_lock lock(mutex_);
    dropped.swap(retired_);
  }
  // Destroyed here, outside the lock: a listener's destructor may reach the registry.
}
