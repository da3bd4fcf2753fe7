// `kltce run --format text`: display events as an aligned table for people.
//
//   LINE  TIME                       CLASS           ID               INFO
//      3  2026-11-22T09:01:00+01:00  KLTInAppEvent   welcome_offer    {"type":"IN_APP"}
//
// Columns have fixed widths (a longer value widens its own row only), so rows can be written as
// the replay produces them. Pure; safe from any thread.
#pragma once

#include <ostream>

#include "platform/KLTValue.h"

namespace kltce {

// Writes one display event ({"time","class","info","line"}, as `run` prints it in JSON), after the
// header row when started is false (then sets it).
void writeDisplayRow(std::ostream& out, const KLTValue& display, bool& started);

}  // namespace kltce
