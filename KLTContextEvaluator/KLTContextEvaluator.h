// KLTContextEvaluator: the plug-in's entry object, which the host drives.
//
// An engine owns one serial task queue ("com.kelto.serial.ce_operations") on which all its rule
// work runs: the parse of a configuration document, every event handled by a condition or trigger,
// and every count update. Those tasks never overlap, so the rule objects need no locks.
//
// sharedInstance() is the process's engine, over the process-wide clock, store, log, host
// controller and device facts. create() makes an engine instance over an environment of its own
// (host/KLTEnvironment.h): it reads only that environment, which it binds on the thread running its
// tasks and during its calls, so several engines run in one process, on different threads, sharing
// no mutable state (the compiled campaigns they read are immutable).
//
// Thread-safety: every public operation may be called from any thread. parseConfiguration() and
// updateCountForConfigWithIdentifier() post one task each and return at once; checkConfiguration()
// only reads; replaceMacros() runs on the caller's thread and never waits for the queue.
// The shared instance lives for the rest of the process (it is never destroyed); an instance from
// create() is destroyed with its last reference (see ~KLTContextEvaluator()).
#pragma once

#include <chrono>

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "KLTContextEvaluator/KLTCEDecisionHooks.h"
#include "KLTContextEvaluator/KLTCEDocument.h"
#include "host/KLTEnvironment.h"
#include "host/KLTEvent.h"
#include "platform/KLTSerialQueue.h"
#include "platform/KLTValue.h"

class KLTCEConfigItem;
class KLTMacroHelper;

class KLTContextEvaluator final : public KeltoPlugin {
 public:
  // The shared instance, created (and its start-up line logged) at the first call. Thread-safe.
  static KLTContextEvaluator& sharedInstance();
  // Chooses the serial queue the shared instance will run its rule work on, in place of its own
  // worker thread (for example a queue its owner drains, platform/KLTDrainedSerialQueue.h). Only
  // before the first sharedInstance(): afterwards it answers false and the queue is not used.
  static bool useSerialQueue(std::shared_ptr<KLTSerialQueue> queue);

  // A new engine over the environment (its empty fields filled as KLTEnvironment::make() fills
  // them), running its rule work on the queue given (nullptr: a worker thread of its own). Its
  // start-up line goes to the environment's log. The queue must serve this engine alone.
  static std::shared_ptr<KLTContextEvaluator> create(KLTEnvironment environment = {},
                                                     std::shared_ptr<KLTSerialQueue> queue = nullptr);
  // The engine whose task or call is under way on the calling thread: the instance bound there,
  // else the shared instance.
  static KLTContextEvaluator& current();
  // The instance bound on the calling thread; nullptr where none is (the shared instance's work,
  // or a thread outside any engine).
  static KLTContextEvaluator* bound();

  // An instance stops delivering to its rule objects (its controller forgets their listeners),
  // waits until its queue has run every task posted before (10 s at most) and frees the rule
  // objects. A queue held for good by a timer that never ends cannot be waited for: the queue and
  // the rule objects are then left in memory rather than freed under a task that uses them.
  // Call from any thread but the engine's queue's.
  ~KLTContextEvaluator() override;

  // The environment the engine reads (the process-wide seams for the shared instance: nullptr).
  const std::shared_ptr<KLTEnvironment>& environment() const { return environment_; }

  KLTContextEvaluator(const KLTContextEvaluator&) = delete;
  KLTContextEvaluator& operator=(const KLTContextEvaluator&) = delete;

  // KeltoPlugin: initialize() ignores its argument; start() and stop() change nothing and answer false.
  void initialize(const KLTValue& argument) override;
  bool start() override;
  bool stop() override;

  // The serial task queue of all rule work; the same for the life of the process.
  std::shared_ptr<KLTSerialQueue> ceOpsSerialQueue() const;

  // Queues the parse of a configuration document: configurations sorted by priority, admitted by
  // checkConfiguration() and turned into config items stored by id. Returns at once.
  void parseConfiguration(KLTValue document);
  // The same parse of a document the caller keeps and may hand to many parses (a fleet parses one
  // document per device): it is only read, never copied. nullptr parses as an empty document.
  void parseConfiguration(std::shared_ptr<const KLTValue> document);
  // The same parse of a document compiled beforehand (KLTCEDocument.h), which any number of engines
  // share: each configuration is admitted for this engine's device, but not compiled again. Its
  // decisions, items and log lines are those of the parse of the document's JSON.
  void parseConfiguration(std::shared_ptr<const KLTCEDocument> document);
  // Queues the count of one display of the campaign with this id (the host calls it after showing
  // one). Unknown ids are ignored. Returns at once.
  void updateCountForConfigWithIdentifier(std::string identifier);

  // Whether one configuration is admitted for this device, app version, user, session and date.
  // Logs the reason of a rejection; no other side effect. Any value is accepted.
  bool checkConfiguration(const KLTValue& config) const;
  // The same check, with the reason of a rejection as data: the step that failed and the values
  // it compared (see KLTCEDecision.h, Rejected). Logs as checkConfiguration() does. Any thread.
  KLTCEAdmission admissionOfConfiguration(const KLTValue& config) const;

  // Installs the decision observer (nullptr: none), which then receives a record of every decision
  // (admission, arming, counting, window, cap, dispatch, display count; see KLTCEDecision.h) on the
  // serial queue. Takes effect between two tasks of the queue: after every task posted before this
  // call, before every task posted after it. Returns at once; any thread. The previous observer is
  // released on the queue after its last record.
  void setDecisionObserver(std::shared_ptr<KLTCEDecisionObserver> observer);

  // The text with its [user_x(default)] and [session_x(default)] placeholders filled; nothing when
  // the text is not a non-empty string. Runs on the caller's thread.
  std::optional<std::string> replaceMacros(const KLTValue& text) const;

  // Ids of the stored config items. Call on the serial queue, or after ceOpsSerialQueue()
  // ->waitUntilIdle(); the table belongs to the queue.
  std::vector<std::string> configurationIdentifiers() const;
  // The stored item for an id, or nullptr; same threading rule.
  std::shared_ptr<KLTCEConfigItem> configItemForIdentifier(const std::string& identifier) const;


 private:
  // Tests reach the reset of the shared instance between cases through it (testsupport/).
  friend struct KLTContextEvaluatorTestAccess;
  explicit KLTContextEvaluator(std::shared_ptr<KLTSerialQueue> queue);
  struct InstanceTag {};
  KLTContextEvaluator(InstanceTag, std::shared_ptr<KLTEnvironment> environment, std::shared_ptr<KLTSerialQueue> queue);
  // Binds the instance's environment, decision channel and itself on the calling thread for a
  // call that runs there (nothing for the shared instance).
  class CallScope {
   public:
    explicit CallScope(const KLTContextEvaluator& engine);
    ~CallScope();
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

   private:
    std::optional<KLTEnvironment::Scope> environment_;
    KLTCEDecisions::Channel* previousChannel_ = nullptr;
    KLTContextEvaluator* previousEngine_ = nullptr;
    bool bound_ = false;
  };
  class QueueScope;
  // Stops delivering to every rule object, then frees them all (on the queue).
  void releaseAllItems();
  // The queue chosen by useSerialQueue(), else a new worker-thread queue; no choice is taken after.
  static std::shared_ptr<KLTSerialQueue> takeChosenQueue();
  // Reads the document's configurations. owned: the same document, the engine's own, which gives
  // up each configuration once its item is built; nullptr: a shared document, only read.
  void parseTask(KLTValue* owned, const KLTValue& document);
  // Admits one configuration and stores the item built from it.
  // compiled: the configuration's campaign when compiled beforehand (KLTCEDocument), else nullptr.
  void parseOne(const KLTValue& config, int64_t priority, std::shared_ptr<const KLTCECampaign> compiled = nullptr);
  bool checkConfiguration(const KLTValue& config, KLTCEAdmission* why) const;
  // The admission check in a parse; reports the admission to the observer when one is installed.
  bool admitConfiguration(const KLTValue& config, int64_t priority) const;

  std::unordered_map<std::string, std::shared_ptr<KLTCEConfigItem>> _configuration;
  // Items dropped from the table by a later parse. Rule objects live for the rest of the process
  // (their conditions may still be registered with the host); keeping them here keeps them
  // reachable rather than leaked as unreachable cycles.
  std::vector<std::shared_ptr<KLTCEConfigItem>> retiredItems;
  std::unique_ptr<KLTMacroHelper> macroHelper;
  std::shared_ptr<KLTCEDecisionObserver> decisionObserver;  // touched on the queue only
  const std::shared_ptr<KLTSerialQueue> _ceOpsSerialQueue;
  std::shared_ptr<KLTEnvironment> environment_;             // nullptr for the shared instance
  std::unique_ptr<KLTCEDecisions::Channel> channel_;        // an instance's own decision channel
};
