#include "fuzz/fuzz_input.h"

#include <memory>

#include "host/KLTController.h"
#include "platform/KLTLog.h"

namespace kltce_fuzz {

namespace {

class NullSink final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
};

}  // namespace

void silenceLog() {
  KLTLog::setSink(std::make_shared<NullSink>());
  LOG_LEVEL = 0;
}

}  // namespace kltce_fuzz
