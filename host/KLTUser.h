// KLTUser and KLTSession: the host's current user and session, with their attributes (matched by
// audience rules) and custom info (read by message placeholders).
//
// Thread-safety: every getter and setter may be called from any thread. Getters hand out immutable
// snapshots: a snapshot stays valid and unchanged however the object changes later.
#pragma once

#include <memory>
#include <mutex>

#include "platform/KLTValue.h"

// Attributes and custom info of one holder, each a dictionary.
class KLTAttributeHolder {
 public:
  KLTAttributeHolder(const KLTAttributeHolder&) = delete;
  KLTAttributeHolder& operator=(const KLTAttributeHolder&) = delete;
  virtual ~KLTAttributeHolder() = default;

  std::shared_ptr<const KLTValue> customInfo() const;
  // Replaces the custom info (a non-dictionary is kept as given; lookups in it then miss).
  void setCustomInfo(KLTValue info);
  // Sets one entry of the custom info.
  void setCustomInfoValue(const std::string& key, KLTValue value);

 protected:
  KLTAttributeHolder() = default;
  std::shared_ptr<const KLTValue> attributes() const;
  void setAttributes(KLTValue attributes);
  void setAttributeValue(const std::string& key, KLTValue value);

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const KLTValue> attributes_ = std::make_shared<const KLTValue>(KLTValue::object());
  std::shared_ptr<const KLTValue> customInfo_ = std::make_shared<const KLTValue>(KLTValue::object());
};

class KLTUser final : public KLTAttributeHolder {
 public:
  std::shared_ptr<const KLTValue> userAttributes() const { return attributes(); }
  void setUserAttributes(KLTValue a) { setAttributes(std::move(a)); }
  void setUserAttribute(const std::string& key, KLTValue value) { setAttributeValue(key, std::move(value)); }
};

class KLTSession final : public KLTAttributeHolder {
 public:
  std::shared_ptr<const KLTValue> sessionAttributes() const { return attributes(); }
  void setSessionAttributes(KLTValue a) { setAttributes(std::move(a)); }
  void setSessionAttribute(const std::string& key, KLTValue value) { setAttributeValue(key, std::move(value)); }
};
