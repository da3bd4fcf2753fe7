#include "host/KLTDeviceFacts.h"

#include <sys/utsname.h>

namespace {

std::string machineName() {
  // Read once: it never changes while the process runs, and every engine instance starts from it.
  static const std::string name = [] {
    struct utsname u {};
    return ::uname(&u) == 0 ? std::string(u.machine) : std::string("unknown");
  }();
  return name;
}

}  // namespace

KLTDeviceFacts::KLTDeviceFacts() : name_(machineName()) {}

std::string KLTDeviceFacts::deviceName() const {
  std::lock_guard lock(mutex_);
  return name_;
}

void KLTDeviceFacts::setDeviceName(std::string name) {
  std::lock_guard lock(mutex_);
  name_ = std::move(name);
}

bool KLTDeviceFacts::isFirstSession() const {
  std::lock_guard lock(mutex_);
  return firstSession_;
}

void KLTDeviceFacts::setFirstSession(bool first) {
  std::lock_guard lock(mutex_);
  firstSession_ = first;
}

KLTSeam<KLTDeviceFacts>& KLTDeviceFacts::seam() {
  static KLTSeam<KLTDeviceFacts> seam([] { return std::make_shared<KLTDeviceFacts>(); });
  return seam;
}
