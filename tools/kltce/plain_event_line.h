// The plain event line, read straight from its text: the stream's most common line, whose keys are
// "t", "type", "name", "attributes" (and a fleet's "device"), written without escapes, with a
// time that is text or whole milliseconds and attributes that are one flat object of texts,
// integers, booleans and nulls:
//
//   {"device":"d1","t":1795350360000,"type":"app","name":"purchase","attributes":{"plan":"gold"}}
//
// Pure and safe from any thread; never throws.
#pragma once

#include <string_view>

#include "tools/kltce/stream_line.h"

namespace kltce {

enum class PlainReading {
  Read,      // line is the event line the general reading makes of the text
  NotQuick,  // the text is no event line the quick reading takes (an action's key, a repeated key)
  Unsure,    // the text is not plain (an escape, a fraction, a nested value, a syntax slip): read it otherwise
};

// Reads text into line (default-made); line's contents are unspecified unless Read. deviceKey
// allows a "device" key whose value is text (a fleet's line, its id read already).
PlainReading readPlainEventLine(std::string_view text, bool deviceKey, StreamLine& line);

}  // namespace kltce
