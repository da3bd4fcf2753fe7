// Fuzz target: placeholder filling with arbitrary custom info.
//
// Input: a JSON object on the first line, installed as both the user's and the session's custom
// info, then the text to fill (any bytes). Also fills the input's own first line as a text, since
// values that hold placeholders are the hard case.
#include <cstdint>
#include <memory>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "fuzz/fuzz_input.h"
#include "host/KLTController.h"
#include "platform/KLTValueReader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto [first, rest] = kltce_fuzz::firstLineAndRest(kltce_fuzz::asText(data, size));
  klt::KLTValueRead info = klt::readJsonText(first);
  auto& controller = KLTController::sharedController();
  auto user = std::make_shared<KLTUser>();
  auto session = std::make_shared<KLTSession>();
  if (info.ok() && info.value.is_object()) {
    user->setCustomInfo(info.value);
    session->setCustomInfo(info.value);
  }
  controller.setUser(std::move(user));
  controller.setSession(std::move(session));
  const KLTContextEvaluator& evaluator = KLTContextEvaluator::sharedInstance();
  (void)evaluator.replaceMacros(KLTValue(std::string(rest)));
  (void)evaluator.replaceMacros(KLTValue(std::string(first)));
  return 0;
}
