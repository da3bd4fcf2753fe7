// `kltce macros`: expands the [user_x(default)] / [session_x(default)] placeholders of a text
// under a device profile, through the engine's replaceMacros().
//
// runMacros() installs the profile as the host's state: call it from one thread, with no replay
// running. It never throws.
#pragma once

#include <ostream>
#include <string>

#include "tools/kltce/input/profile.h"

namespace kltce {

// Writes the expanded text and a newline to out. An empty text gives an empty line. Returns 0, or 1
// (with a message on err) when the engine gives nothing back for a non-empty text.
int runMacros(const Profile& profile, const std::string& text, std::ostream& out, std::ostream& err);

}  // namespace kltce
