// KLTTestHost: a scripted host for tests and benchmarks. For its lifetime it installs
// - a virtual clock (auto-advancing, UTC unless told otherwise),
// - a fresh user-defaults store in a temporary folder (removed afterwards),
// - a captured log at the given LOG_LEVEL,
// - a fresh user and session, no listeners, device "iPhone14,2", not a first session,
//   application version "1.0",
// - a dispatch handler that records every display event,
// and restores the process-wide clock, store, log sink and level when it goes.
//
// Thread-safety: construct and destroy on one thread; dispatched() may be read from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/KLTController.h"
#include "platform/KLTUserDefaults.h"
#include "testsupport/KLTCapturedLog.h"
#include "platform/KLTVirtualClock.h"

// A unique temporary folder, removed with everything in it on destruction.
class KLTTempDir {
 public:
  KLTTempDir();
  KLTTempDir(const KLTTempDir&) = delete;
  KLTTempDir& operator=(const KLTTempDir&) = delete;
  ~KLTTempDir();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct KLTDispatchedEvent {
  std::string className;
  KLTValue info;
  int64_t atMillis = 0;
};

class KLTTestHost {
 public:
  explicit KLTTestHost(long logLevel = 0);
  KLTTestHost(const KLTTestHost&) = delete;
  KLTTestHost& operator=(const KLTTestHost&) = delete;
  ~KLTTestHost();

  KLTVirtualClock& clock() { return *clock_; }
  KLTCapturedLog& log() { return capture_.log(); }
  KLTController& controller() { return KLTController::sharedController(); }
  const std::filesystem::path& storePath() const { return storePath_; }
  std::shared_ptr<KLTUserDefaults> store() const { return store_; }
  // Replaces the store with a new object reading the same file (a restart of the app).
  void reopenStore();

  std::vector<KLTDispatchedEvent> dispatched() const;
  void clearDispatched();

  // Delivers an event through the host's registry.
  std::size_t deliver(unsigned long code, std::string identifier, KLTValue info = KLTValue::object());
  // Waits until every task posted so far to the evaluator's queue has run.
  void drainEvaluatorQueue();

 private:
  KLTTempDir dir_;
  KLTScopedLogCapture capture_;
  std::shared_ptr<KLTVirtualClock> clock_;
  std::shared_ptr<KLTClock> previousClock_;
  std::filesystem::path storePath_;
  std::shared_ptr<KLTUserDefaults> store_;
  std::shared_ptr<KLTUserDefaults> previousStore_;
  mutable std::mutex mutex_;
  std::vector<KLTDispatchedEvent> dispatched_;
};
