// Display events: what the context evaluator hands to the host's dispatchEvent() to have a campaign
// shown. Each class carries an info dictionary filled with setInfo(value, key), in call order.
//
// Thread-safety: an event is filled on one thread before it is dispatched and only read afterwards.
#pragma once

#include <string>
#include <string_view>

#include "platform/KLTValue.h"

class KLTDisplayEvent {
 public:
  KLTDisplayEvent(const KLTDisplayEvent&) = delete;
  KLTDisplayEvent& operator=(const KLTDisplayEvent&) = delete;
  virtual ~KLTDisplayEvent() = default;

  // The class name: "KLTInAppEvent", "KLTSurveyEvent" or "KLTInlineEvent".
  virtual std::string_view className() const = 0;
  // Sets the info under key; a null value sets nothing.
  void setInfo(KLTValue value, const std::string& key);
  // The info dictionary, keys in the order they were first set.
  const KLTValue& info() const { return info_; }

 protected:
  KLTDisplayEvent() = default;

 private:
  KLTValue info_ = KLTValue::object();
};

class KLTInAppEvent final : public KLTDisplayEvent {
 public:
  std::string_view className() const override { return "KLTInAppEvent"; }
};

class KLTSurveyEvent final : public KLTDisplayEvent {
 public:
  std::string_view className() const override { return "KLTSurveyEvent"; }
};

class KLTInlineEvent final : public KLTDisplayEvent {
 public:
  std::string_view className() const override { return "KLTInlineEvent"; }
};
