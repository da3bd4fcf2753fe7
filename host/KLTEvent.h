// Host events and the host protocols that the context evaluator adopts.
//
// A KLTEvent is immutable once built and is passed around as std::shared_ptr<const KLTEvent>, so it
// can be read from any thread.
#pragma once

#include <memory>
#include <string>

#include "platform/KLTSerialQueue.h"
#include "platform/KLTValue.h"

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

  static std::shared_ptr<const KLTEvent> make(unsigned long type, std::string identifier,
                                              KLTValue additionalInfo = KLTValue::object()) {
    // Built in place: a default event would first make an empty attributes object only to free it.
    return std::make_shared<const KLTEvent>(KLTEvent{type, std::move(identifier), std::move(additionalInfo)});
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
