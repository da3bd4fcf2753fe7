// The framework's version symbols.
#pragma once

// 1.0
extern const double KLTContextEvaluatorVersionNumber;
// "1.0"
extern const char KLTContextEvaluatorVersionString[];
