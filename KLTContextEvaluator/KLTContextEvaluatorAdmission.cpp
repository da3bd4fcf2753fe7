// Placeholder so the library links while the admission checks are written; admits nothing.
#include "KLTContextEvaluator/KLTContextEvaluator.h"

bool KLTContextEvaluator::checkConfiguration(const KLTValue&) const { return false; }
