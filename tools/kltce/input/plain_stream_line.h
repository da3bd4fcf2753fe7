// The plain stream line, read straight from its text: the stream's common lines (an event, a
// "shown" or a "new_session" action) written without escapes, with a time that is text or whole
// milliseconds, and objects (attributes, custom info) that are flat: texts, whole numbers,
// booleans and nulls.
//
//   {"device":"d1","t":1795350360000,"type":"app","name":"purchase","attributes":{"plan":"gold"}}
//   {"device":"d1","t":1795350742000,"action":"shown","id":"welcome_offer"}
//   {"device":"d1","t":1795350877000,"action":"new_session","attributes":{"channel":"push"}}
//
// Pure and safe from any thread; never throws.
#pragma once

#include <string_view>

#include "tools/kltce/input/stream_line.h"

namespace kltce {

enum class PlainReading {
  Read,      // line is the line the general reading makes of the text
  NotQuick,  // the text is no line the quick reading takes: another action, a line with an error
             // or with something to note (an unknown key, a repeated one)
  Unsure,    // the text is not plain (an escape, a fraction, a nested value, a syntax slip): read it otherwise
};

// Reads text into line (default-made); line's contents are unspecified unless Read. deviceKey
// allows a "device" key whose value is text (a fleet's line, its id read already).
PlainReading readPlainLine(std::string_view text, bool deviceKey, StreamLine& line);

}  // namespace kltce
