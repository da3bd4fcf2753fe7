// Placeholder so the library links while the placeholder filling is written.
#include "KLTContextEvaluator/KLTMacroHelper.h"

KLTMacroHelper::KLTMacroHelper() = default;
KLTMacroHelper::~KLTMacroHelper() = default;
std::optional<std::string> KLTMacroHelper::applyMacro(const KLTValue&) const { return std::nullopt; }
