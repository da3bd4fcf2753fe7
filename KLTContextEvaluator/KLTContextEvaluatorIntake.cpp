// Placeholder so the library links while configuration intake is written.
#include "KLTContextEvaluator/KLTContextEvaluator.h"

void KLTContextEvaluator::parseConfiguration(KLTValue) {}
void KLTContextEvaluator::updateCountForConfigWithIdentifier(std::string) {}
void KLTContextEvaluator::parseTask(const KLTValue&) {}
