// Host events and the host protocols that the context evaluator adopts.
//
// A KLTEvent is immutable once built and is passed around as std::shared_ptr<const KLTEvent>, so it
// can be read from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/KLTKeyIndex.h"
#include "platform/KLTSerialQueue.h"
#include "platform/KLTValue.h"

// The index of an event's attributes, made by the first rule that looks one up and kept for the
// others: an event reaches every condition and trigger listening for it. It lives inside the event
// (no allocation for a handful of attributes). Safe from any thread: a lookup that meets another
// thread building it waits for that to end (a few nanoseconds). A copy starts without an index.
class KLTLazyKeyIndex {
 public:
  KLTLazyKeyIndex() = default;
  KLTLazyKeyIndex(const KLTLazyKeyIndex&) noexcept {}
  KLTLazyKeyIndex& operator=(const KLTLazyKeyIndex&) = delete;
  // The index of dictionary, which must be the same value at every call for this object.
  const klt::KLTKeyIndex& of(const KLTValue& dictionary) const {
    uint8_t state = state_.load(std::memory_order_acquire);
    if (state == kReady) return *index_;
    if (state == kNone && state_.compare_exchange_strong(state, kBuilding, std::memory_order_acq_rel)) {
      index_.emplace(dictionary);
      state_.store(kReady, std::memory_order_release);
      return *index_;
    }
    while (state_.load(std::memory_order_acquire) != kReady) std::this_thread::yield();
    return *index_;
  }

 private:
  static constexpr uint8_t kNone = 0, kBuilding = 1, kReady = 2;
  mutable std::atomic<uint8_t> state_{kNone};
  mutable std::optional<klt::KLTKeyIndex> index_;
};

// Host event codes.
enum KLTEventCode : unsigned long {
  kKLTEventCodeActivity = 1,  // an activity (screen) was shown; identifier: its name
  kKLTEventCodePresence = 3,  // the user is present (touch, scroll...); only ends an idle wait
  kKLTEventCodeApp = 4,       // an app event; identifier: its name
  kKLTEventCodeClient = 5,    // a client event; identifier: its name
};

struct KLTEvent {
  unsigned long eventType = 0;
  std::string identifier;                         // the event's or activity's name
  KLTValue additionalInfo = KLTValue::object();   // the event's attributes
  KLTLazyKeyIndex attributeIndex_;                // of additionalInfo; see attributes()

  // The attributes, indexed by key.
  const klt::KLTKeyIndex& attributes() const { return attributeIndex_.of(additionalInfo); }

  static std::shared_ptr<const KLTEvent> make(unsigned long type, std::string identifier,
                                              KLTValue additionalInfo = KLTValue::object()) {
    // Built in place: a default event would first make an empty attributes object only to free it.
    return std::make_shared<const KLTEvent>(KLTEvent{type, std::move(identifier), std::move(additionalInfo), {}});
  }
};

// Something the host delivers events to.
class KLTEventListener {
 public:
  KLTEventListener() = default;
  KLTEventListener(const KLTEventListener&) = delete;
  KLTEventListener& operator=(const KLTEventListener&) = delete;
  virtual ~KLTEventListener() = default;
  // Called on whatever thread the host delivers from; must return quickly.
  virtual void onEvent(std::shared_ptr<const KLTEvent> event) = 0;

  // A listener whose onEvent() only posts handleQueuedEvent() to one serial queue, the same for
  // its whole life, names that queue here. A delivery to listeners that all name the same queue
  // then posts their handling as one batch (KLTSerialQueue::asyncEach): the same tasks in the
  // same order as their onEvent() calls would post, with one hand-off per event. nullptr (the
  // default): onEvent() is called.
  virtual KLTSerialQueue* eventQueue() const { return nullptr; }
  // What onEvent() posts, run on eventQueue(). Never called when eventQueue() is nullptr.
  virtual void handleQueuedEvent(const KLTEvent& event) { (void)event; }
};

// A plug-in the host drives.
class KeltoPlugin {
 public:
  KeltoPlugin() = default;
  KeltoPlugin(const KeltoPlugin&) = delete;
  KeltoPlugin& operator=(const KeltoPlugin&) = delete;
  virtual ~KeltoPlugin() = default;
  virtual void initialize(const KLTValue& argument) = 0;
  virtual bool start() = 0;
  virtual bool stop() = 0;
};
