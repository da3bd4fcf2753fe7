#include "platform/KLTSerialQueue.h"

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
  std::lock_guard lock(failureMutex());
  if (!firstFailure()) firstFailure() = what;
}

std::optional<std::string> KLTSerialQueue::firstTaskFailure() {
  std::lock_guard lock(failureMutex());
  return firstFailure();
}
