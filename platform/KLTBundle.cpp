#include "platform/KLTBundle.h"

#include <mutex>

namespace {
std::mutex& bundleMutex() {
  static std::mutex m;
  return m;
}
std::optional<std::string>& versionSlot() {
  static std::optional<std::string> slot;
  return slot;
}
}  // namespace

std::optional<std::string> KLTBundle::shortVersionString() {
  std::lock_guard lock(bundleMutex());
  return versionSlot();
}

void KLTBundle::setShortVersionString(std::optional<std::string> version) {
  std::lock_guard lock(bundleMutex());
  versionSlot() = std::move(version);
}
