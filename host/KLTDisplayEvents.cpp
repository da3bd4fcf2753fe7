#include "host/KLTDisplayEvents.h"

void KLTDisplayEvent::setInfo(KLTValue value, const std::string& key) {
  if (value.is_null()) return;
  info_[key] = std::move(value);
}
