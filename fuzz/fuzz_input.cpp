#include "fuzz/fuzz_input.h"

#include <memory>

#include "host/KLTController.h"
#include "platform/KLTLog.h"

namespace kltce_fuzz {

namespace {

// A timer longer than this (ten years) is counted as one that never ends.
constexpr int64_t kLongestTimerMillis = 10LL * 366 * 24 * 3600 * 1000;

class NullSink final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
};

}  // namespace

void silenceLog() {
  KLTLog::setSink(std::make_shared<NullSink>());
  LOG_LEVEL = 0;
}

bool hasEndlessTimer(const KLTValue& document) {
  const KLTValue& configs = klt::valueForKey(document, "configs");
  if (!configs.is_array()) return false;
  for (const auto& config : configs) {
    const KLTValue& conditions = klt::valueForKey(config, "conditions");
    if (!conditions.is_array()) continue;
    for (const auto& condition : conditions) {
      const KLTValue& details = klt::valueForKey(condition, "details");
      const int64_t millis = klt::integerValue(klt::valueForKey(klt::valueForKey(details, "additional_info"), "time"));
      if (millis < 0 || millis > kLongestTimerMillis) return true;
    }
  }
  return false;
}

}  // namespace kltce_fuzz
