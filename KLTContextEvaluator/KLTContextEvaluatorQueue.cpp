// The choice of the serial queue the shared instance runs on, made once, before its creation.
#include <mutex>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTThreadSerialQueue.h"

namespace {

struct QueueChoice {
  std::mutex mutex;
  std::shared_ptr<KLTSerialQueue> chosen;
  bool taken = false;  // the shared instance exists and runs on its queue
};

QueueChoice& queueChoice() {
  static QueueChoice choice;
  return choice;
}

}  // namespace

bool KLTContextEvaluator::useSerialQueue(std::shared_ptr<KLTSerialQueue> queue) {
  auto& choice = queueChoice();
  std::lock_guard lock(choice.mutex);
  if (choice.taken || !queue) return false;
  choice.chosen = std::move(queue);
  return true;
}

std::shared_ptr<KLTSerialQueue> KLTContextEvaluator::takeChosenQueue() {
  auto& choice = queueChoice();
  std::lock_guard lock(choice.mutex);
  choice.taken = true;
  if (choice.chosen) return std::move(choice.chosen);
  return std::make_shared<KLTThreadSerialQueue>(kKLTCEOpsSerialQueue);
}
