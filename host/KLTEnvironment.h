// KLTEnvironment: everything one engine instance reads from its host and platform: the clock, the
// counter store, the log sink and level, the application's version, the device facts and the host
// controller (listeners, user, session, dispatch). Two engines over two environments share no
// mutable state.
//
// While a Scope lives, the environment's objects are the ones in effect on its thread (each through
// its seam, platform/KLTSeam.h): KLTClock::current(), KLTLog, KLTUserDefaults::
// standardUserDefaults(), KLTBundle, KLTUtilities' device facts and KLTController::current() all
// answer with them. An engine binds its environment on the thread that runs its tasks.
//
// Ownership: the objects are shared; an engine keeps its environment alive. Thread-safety: the
// objects are each safe from any thread; the fields are set before the environment is handed to an
// engine and not replaced afterwards.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "host/KLTController.h"
#include "host/KLTDeviceFacts.h"
#include "platform/KLTBundle.h"
#include "platform/KLTClock.h"
#include "platform/KLTLog.h"
#include "platform/KLTUserDefaults.h"

struct KLTEnvironment {
  std::shared_ptr<KLTClock> clock;
  std::shared_ptr<KLTUserDefaults> store;
  std::shared_ptr<KLTLogSink> logSink;
  std::shared_ptr<std::atomic<long>> logLevel;  // read as the host's LOG_LEVEL is
  std::shared_ptr<KLTBundle> bundle;
  std::shared_ptr<KLTDeviceFacts> device;
  std::shared_ptr<KLTController> controller;

  // The environment with every field left empty filled: a real clock in the process's zone, counters
  // in memory only, standard error, level 2, no application version, this machine's facts and a
  // controller of its own.
  static std::shared_ptr<KLTEnvironment> make(KLTEnvironment parts = {});

  // Puts the environment's objects in effect on the constructing thread until destruction. The
  // environment must outlive the scope and end on the same thread.
  class Scope {
   public:
    explicit Scope(const KLTEnvironment& environment);
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    KLTSeam<KLTClock>::Binding clock_;
    KLTSeam<KLTUserDefaults>::Binding store_;
    KLTSeam<KLTLogSink>::Binding sink_;
    KLTSeam<std::atomic<long>>::Binding level_;
    KLTSeam<KLTBundle>::Binding bundle_;
    KLTSeam<KLTDeviceFacts>::Binding device_;
    KLTSeam<KLTController>::Binding controller_;
  };
};
