// `kltce fleet --html FILE` and `kltce fleet merge --html FILE`: the command as without --html,
// and beside its output the fleet's HTML report (fleet_html.h), or with --compare (a merge: of
// comparisons) the comparison's (fleet_compare_html.h).
//
// The command's summary or comparison is taken in its JSON form and read back, so the report is
// made from exactly what `--format json` prints (and what merge adds up); the table or JSON on `out` is
// byte for byte what the command prints without --html. The file is opened before the fleet is
// replayed: one that cannot be written stops the command at once (exit status 2). No report is
// written when the command fails.
//
// Not thread-safe: runs the command in the calling thread like runFleetCommand().
#pragma once

#include <ostream>
#include <string>

#include "tools/kltce/fleet/fleet_command.h"

namespace kltce {

// merge: run `kltce fleet merge` rather than `kltce fleet`. command.document and command.compare,
// when set, name the new and the old document in the header (with merge they are only read for
// that). toolVersion: for the header.
int runFleetWithHtml(FleetCommand command, bool merge, const std::string& html, const std::string& toolVersion,
                     std::ostream& out, std::ostream& err);

}  // namespace kltce
