// KLTController: the reference host's controller, the one object through which the context
// evaluator reaches the host.
//
// - A listener registry keyed by listener identifier ("%lu___%@": event code, three underscores,
//   name; see listenerIdentifier()) and by event code. Identifiers are kept split into their code
//   and name, so that a delivery finds its listeners without building the identifier text.
//   deliverEvent() reaches every listener registered under the event's identifier key, then every
//   listener registered for its code. A listener registered several times under the same key
//   receives each event once for that key. When all of them handle events on the same serial
//   queue, their handling is posted as one batch (see KLTEventListener::eventQueue()). Listeners
//   are held strongly for the life of the registry.
// - currentSDKTimeInMillis(): epoch milliseconds from the platform clock (KLTClock::current()).
// - dispatchEvent(): hands display events to the handler the embedding code installed.
// - user() and session(): the current user and session.
//
// Thread-safety: every operation may be called from any thread. Listeners are called outside the
// registry's lock, on the thread that called deliverEvent(); the dispatch handler is called on the
// thread that called dispatchEvent() (the evaluator's serial queue).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/KLTDisplayEvents.h"
#include "host/KLTEvent.h"
#include "host/KLTUser.h"
#include "platform/KLTLog.h"  // the host's global LOG_LEVEL
#include "platform/KLTSeam.h"

class KLTController {
 public:
  using DispatchHandler = std::function<void(std::shared_ptr<KLTDisplayEvent>)>;

  // The process-wide controller; never destroyed.
  static KLTController& sharedController();
  // The controller in effect on the calling thread: the one an engine instance binds on the thread
  // that runs its tasks (its environment's), else the shared controller. The engine's rule objects
  // reach their host through it.
  static KLTController& current();
  static KLTSeam<KLTController>& seam();

  KLTController();
  KLTController(const KLTController&) = delete;
  KLTController& operator=(const KLTController&) = delete;

  // "%lu___%@" of a code and a name, the name in its text form (a missing name gives "(null)").
  static std::string listenerIdentifier(unsigned long code, const KLTValue& name);

  // --- what the plug-in calls ---
  void registerIdentifer(const std::string& identifier, std::shared_ptr<KLTEventListener> listener);
  // The same registration under the identifier of (code, name), given in its two parts: nothing
  // is built or split (a rule keeps its key from when it was compiled).
  void registerListener(unsigned long code, std::string_view name, std::shared_ptr<KLTEventListener> listener);
  // A number that changes whenever removeAllListeners() forgets every registration: a listener
  // registered under a key stays registered there while this number is the same.
  uint64_t listenerGeneration() const { return generation_.load(std::memory_order_acquire); }
  void registerForEventWithType(unsigned long eventType, std::shared_ptr<KLTEventListener> listener);
  int64_t currentSDKTimeInMillis() const;
  void dispatchEvent(std::shared_ptr<KLTDisplayEvent> event);
  std::shared_ptr<KLTUser> user() const;
  std::shared_ptr<KLTSession> session() const;

  // --- what the embedding host calls ---
  // Delivers the event to its listeners; returns the number of deliveries made.
  std::size_t deliverEvent(const std::shared_ptr<const KLTEvent>& event);
  // Installs the display handler (nullptr: display events are dropped).
  void setDispatchHandler(DispatchHandler handler);
  // Starts a new user or session (a fresh object, with empty attributes when none is given).
  void setUser(std::shared_ptr<KLTUser> user);
  void setSession(std::shared_ptr<KLTSession> session);
  // Stops delivering to every listener (a host that tears down its plug-ins). The listeners are
  // not destroyed: rule objects hold each other in cycles meant to live for the whole process, so
  // the registry keeps them alive, undelivered, instead of leaking them unreachable.
  void removeAllListeners();
  // Drops the listeners removeAllListeners() kept alive. For an engine instance that goes (or is
  // reset in a test), once it has broken the cycles of its rule objects; a listener still in a
  // reference cycle is leaked.
  void discardRemovedListeners();
  // Number of (key, listener) registrations.
  std::size_t registrationCount() const;

 private:
  struct ListenerList {
    std::vector<std::shared_ptr<KLTEventListener>> listeners;
    // The serial queue every listener of the list handles its events on, when they all name the
    // same one (KLTEventListener::eventQueue()); nullptr otherwise.
    KLTSerialQueue* queue = nullptr;
  };
  using ListSlot = std::shared_ptr<const ListenerList>;
  // Names looked up by string_view, without a std::string per lookup.
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  using ByName = std::unordered_map<std::string, ListSlot, NameHash, std::equal_to<>>;
  // Adds the listener once; queue is its eventQueue().
  static void addUnique(ListSlot& slot, std::shared_ptr<KLTEventListener> listener, KLTSerialQueue* queue);

  mutable std::shared_mutex mutex_;
  std::atomic<uint64_t> generation_{0};
  // Identifiers "<code>___<name>" by code, then name. An identifier that no event's can equal (its
  // code part is not a code's decimal text) stays registered, and counted, but is never delivered.
  std::unordered_map<unsigned long, ByName> byIdentifier_;
  std::unordered_map<std::string, ListSlot> undeliverable_;
  std::unordered_map<unsigned long, std::shared_ptr<const ListenerList>> byType_;
  std::vector<std::shared_ptr<const ListenerList>> retired_;
  std::shared_ptr<DispatchHandler> dispatchHandler_;
  std::shared_ptr<KLTUser> user_;
  std::shared_ptr<KLTSession> session_;
};
