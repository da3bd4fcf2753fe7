// Uses the installed headers and library: the host registry delivers an event by its listener
// identifier, and the evaluator starts up with its serial queue.
#include <KLTContextEvaluator/KLTContextEvaluator.h>
#include <host/KLTController.h>

#include <cstdio>
#include <memory>

namespace {

class Counter final : public KLTEventListener {
 public:
  void onEvent(std::shared_ptr<const KLTEvent>) override { ++count; }
  int count = 0;
};

}  // namespace

int main() {
  auto counter = std::make_shared<Counter>();
  KLTController& controller = KLTController::sharedController();
  controller.registerIdentifer(KLTController::listenerIdentifier(kKLTEventCodeApp, "purchase"), counter);
  controller.deliverEvent(KLTEvent::make(kKLTEventCodeApp, "purchase"));

  KLTContextEvaluator& evaluator = KLTContextEvaluator::sharedInstance();
  const bool queueReady = evaluator.ceOpsSerialQueue()->waitUntilIdle();
  if (counter->count != 1 || evaluator.start() || !queueReady ||
      evaluator.ceOpsSerialQueue()->label() != "com.kelto.serial.ce_operations") {
    std::fprintf(stderr, "consumer: unexpected behaviour of the installed library\n");
    return 1;
  }
  std::printf("consumer: ok\n");
  return 0;
}
