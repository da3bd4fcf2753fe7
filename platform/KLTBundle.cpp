#include "platform/KLTBundle.h"

std::optional<std::string> KLTBundle::version() const {
  std::lock_guard lock(mutex_);
  return version_;
}

void KLTBundle::setVersion(std::optional<std::string> version) {
  std::lock_guard lock(mutex_);
  version_ = std::move(version);
}

KLTSeam<KLTBundle>& KLTBundle::seam() {
  static KLTSeam<KLTBundle> seam([] { return std::make_shared<KLTBundle>(); });
  return seam;
}

std::optional<std::string> KLTBundle::shortVersionString() { return seam().current()->version(); }

void KLTBundle::setShortVersionString(std::optional<std::string> version) { seam().current()->setVersion(std::move(version)); }
