// KLTSeam: the one mechanism behind every replaceable process-wide service (the clock, the log
// sink and its level, the counter store, the application's version, and the host's objects).
//
// A seam answers current(): the object bound on the calling thread, else the process-wide default.
// - The default is made by the seam's factory at first use and may be replaced (replaceDefault()).
//   A seam read at every event (the clock, the log) is made with KLTSeamCache::PerThread: a thread
//   keeps the default it last read, and looks again only after a replacement, so reading it costs
//   one atomic load, not a process-wide lock; a replaced default then lives on until every thread
//   that read it reads again. Other seams (the counter store, whose file lock must go with it) hold
//   their default only in the seam.
// - A Binding puts another object in effect on its thread for its lifetime (bindings nest). An
//   engine instance binds its environment's objects on the thread that runs its tasks, so that
//   two engines on two threads read their own clock, store and log sink and share none.
//
// One seam per type: a seam's thread state is kept per T. Seams are meant to be function-local
// statics (no order of initialisation between files).
// Thread-safety: every operation may be called from any thread; a Binding acts on its own thread
// only and must end on it, innermost first.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

enum class KLTSeamCache { None, PerThread };

template <class T>
class KLTSeam {
 public:
  using Factory = std::shared_ptr<T> (*)();

  explicit KLTSeam(Factory makeDefault, KLTSeamCache cache = KLTSeamCache::None) : make_(makeDefault), cache_(cache) {}
  KLTSeam(const KLTSeam&) = delete;
  KLTSeam& operator=(const KLTSeam&) = delete;

  // The object in effect on the calling thread.
  std::shared_ptr<T> current() {
    if (const std::shared_ptr<T>* bound = bound_) return *bound;
    return processDefault();
  }

  // The same without taking a reference, for a seam made with KLTSeamCache::PerThread. The
  // reference stays valid until the thread's binding ends or, for the default, until this
  // thread's next read after a replacement.
  const std::shared_ptr<T>& currentCached() {
    if (const std::shared_ptr<T>* bound = bound_) return *bound;
    return cachedDefault();
  }

  // Whether a Binding is in effect on the calling thread.
  static bool bound() { return bound_ != nullptr; }

  // The process-wide default, whatever is bound on this thread.
  std::shared_ptr<T> processDefault() {
    if (cache_ == KLTSeamCache::PerThread) return cachedDefault();
    std::lock_guard lock(mutex_);
    return slotLocked();
  }

 private:
  const std::shared_ptr<T>& cachedDefault() {
    struct Cached {
      uint64_t generation = 0;
      std::shared_ptr<T> object;
    };
    thread_local Cached cached;
    if (cached.generation != generation_.load(std::memory_order_acquire)) {
      std::lock_guard lock(mutex_);
      cached.object = slotLocked();
      cached.generation = generation_.load(std::memory_order_relaxed);
    }
    return cached.object;
  }

 public:
  // Replaces the process-wide default (nullptr: a fresh one from the factory, made at its first
  // read). Returns the previous default (nullptr when none was made yet). Threads with a binding
  // keep their bound object.
  std::shared_ptr<T> replaceDefault(std::shared_ptr<T> next) {
    std::lock_guard lock(mutex_);
    slot_.swap(next);
    generation_.fetch_add(1, std::memory_order_release);
    return next;
  }

  // Puts *object in effect on this thread until destruction; the caller keeps *object alive and
  // unchanged for that time. A null pointer puts the process default back in effect.
  class Binding {
   public:
    explicit Binding(const std::shared_ptr<T>* object) : previous_(bound_) { bound_ = object; }
    ~Binding() { bound_ = previous_; }
    Binding(const Binding&) = delete;
    Binding& operator=(const Binding&) = delete;

   private:
    const std::shared_ptr<T>* previous_;
  };

 private:
  std::shared_ptr<T>& slotLocked() {
    if (!slot_) slot_ = make_();
    return slot_;
  }

  inline static thread_local const std::shared_ptr<T>* bound_ = nullptr;
  const Factory make_;
  const KLTSeamCache cache_;
  std::mutex mutex_;
  std::shared_ptr<T> slot_;
  // Bumped by every replacement; starts at 1 so that an empty thread cache is never current.
  std::atomic<uint64_t> generation_{1};
};

// What a serial queue puts in effect on the thread that runs its tasks (platform/KLTSerialQueue.h):
// an engine instance's bindings of its environment.
class KLTSeamScope {
 public:
  KLTSeamScope() = default;
  KLTSeamScope(const KLTSeamScope&) = delete;
  KLTSeamScope& operator=(const KLTSeamScope&) = delete;
  virtual ~KLTSeamScope() = default;
  // Runs work with this scope's bindings in effect on the calling thread, and ends them after.
  virtual void within(const std::function<void()>& work) const = 0;
};
