#include "KLTContextEvaluator/KLTContextEvaluator_vers.h"

const double KLTContextEvaluatorVersionNumber = 1.0;
const char KLTContextEvaluatorVersionString[] = "1.0";
