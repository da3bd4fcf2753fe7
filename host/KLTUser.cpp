#include "host/KLTUser.h"

std::shared_ptr<const KLTValue> KLTAttributeHolder::customInfo() const {
  std::lock_guard lock(mutex_);
  return customInfo_;
}

void KLTAttributeHolder::setCustomInfo(KLTValue info) {
  auto next = std::make_shared<const KLTValue>(std::move(info));
  std::lock_guard lock(mutex_);
  customInfo_ = std::move(next);
}

void KLTAttributeHolder::setCustomInfoValue(const std::string& key, KLTValue value) {
  std::lock_guard lock(mutex_);
  KLTValue copy = customInfo_->is_object() ? *customInfo_ : KLTValue::object();
  copy[key] = std::move(value);
  customInfo_ = std::make_shared<const KLTValue>(std::move(copy));
}

std::shared_ptr<const KLTValue> KLTAttributeHolder::attributes() const {
  std::lock_guard lock(mutex_);
  return attributes_;
}

void KLTAttributeHolder::setAttributes(KLTValue attributes) {
  auto next = std::make_shared<const KLTValue>(std::move(attributes));
  std::lock_guard lock(mutex_);
  attributes_ = std::move(next);
}

void KLTAttributeHolder::setAttributeValue(const std::string& key, KLTValue value) {
  std::lock_guard lock(mutex_);
  KLTValue copy = attributes_->is_object() ? *attributes_ : KLTValue::object();
  copy[key] = std::move(value);
  attributes_ = std::make_shared<const KLTValue>(std::move(copy));
}
