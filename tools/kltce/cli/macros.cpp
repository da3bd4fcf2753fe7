#include "tools/kltce/cli/macros.h"

#include "KLTContextEvaluator/KLTContextEvaluator.h"

namespace kltce {

int runMacros(const Profile& profile, const std::string& text, std::ostream& out, std::ostream& err) {
  applyProfile(profile);
  if (text.empty()) {
    out << '\n';
    return 0;
  }
  const auto expanded = KLTContextEvaluator::sharedInstance().replaceMacros(KLTValue(text));
  if (!expanded) {
    err << "kltce: the engine could not expand the text (see its log above)\n";
    return 1;
  }
  out << *expanded << '\n';
  return 0;
}

}  // namespace kltce
