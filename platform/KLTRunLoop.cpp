#include "platform/KLTRunLoop.h"

#include <algorithm>

KLTTimer::KLTTimer(std::shared_ptr<KLTClock> clock, KLTTimePoint fireDate, std::function<void()> action)
    : clock_(std::move(clock)), fireDate_(fireDate), action_(std::move(action)) {}

std::shared_ptr<KLTTimer> KLTTimer::scheduledTimer(double intervalSeconds, std::function<void()> action) {
  auto clock = KLTClock::current();
  const KLTTimePoint fire = KLTClock::addSaturating(clock->now(), intervalSeconds);
  std::shared_ptr<KLTTimer> timer(new KLTTimer(std::move(clock), fire, std::move(action)));
  KLTRunLoop::current().addTimer(timer);
  return timer;
}

void KLTTimer::invalidate() { stop_.request_stop(); }

bool KLTTimer::isValid() const { return !stop_.stop_requested(); }

KLTRunLoop& KLTRunLoop::current() {
  thread_local KLTRunLoop loop;
  return loop;
}

void KLTRunLoop::addTimer(std::shared_ptr<KLTTimer> timer) {
  std::lock_guard lock(mutex_);
  timers_.push_back(std::move(timer));
}

void KLTRunLoop::run() {
  for (;;) {
    std::shared_ptr<KLTTimer> next;
    {
      std::lock_guard lock(mutex_);
      std::erase_if(timers_, [](const auto& t) { return !t->isValid(); });
      if (timers_.empty()) return;
      next = *std::min_element(timers_.begin(), timers_.end(),
                               [](const auto& a, const auto& b) { return a->fireDate_ < b->fireDate_; });
    }
    const bool reached = next->clock_->sleepUntil(next->fireDate_, next->stop_.get_token());
    if (!reached || !next->isValid()) continue;
    // One-shot: invalid from the moment it fires, as the action may look at it.
    next->invalidate();
    {
      std::lock_guard lock(mutex_);
      std::erase(timers_, next);
    }
    auto action = std::move(next->action_);
    if (action) action();
  }
}
