#include "platform/KLTSerialQueue.h"

#include <memory>
#include <mutex>

namespace {

std::mutex& failureMutex() {
  static std::mutex m;
  return m;
}

std::optional<std::string>& firstFailure() {
  static std::optional<std::string> what;
  return what;
}

}  // namespace

void KLTSerialQueue::recordTaskFailure(const char* what) {
  {
    std::lock_guard lock(failureMutex());
    if (!firstFailure()) firstFailure() = what;
  }
  std::lock_guard lock(scopeMutex_);
  if (!failure_) failure_ = what;
}

std::optional<std::string> KLTSerialQueue::taskFailure() const {
  std::lock_guard lock(scopeMutex_);
  return failure_;
}

std::optional<std::string> KLTSerialQueue::firstTaskFailure() {
  std::lock_guard lock(failureMutex());
  return firstFailure();
}

void KLTSerialQueue::asyncEach(std::size_t count, std::function<void(std::size_t)> task) {
  auto shared = std::make_shared<std::function<void(std::size_t)>>(std::move(task));
  for (std::size_t i = 0; i < count; ++i) async([shared, i] { (*shared)(i); });
}

void KLTSerialQueue::setSeamScope(std::shared_ptr<const KLTSeamScope> scope) {
  std::lock_guard lock(scopeMutex_);
  scope_ = std::move(scope);
}

void KLTSerialQueue::withinScope(const std::function<void()>& work) const {
  std::shared_ptr<const KLTSeamScope> scope;
  {
    std::lock_guard lock(scopeMutex_);
    scope = scope_;
  }
  if (scope) {
    scope->within(work);
  } else {
    work();
  }
}
