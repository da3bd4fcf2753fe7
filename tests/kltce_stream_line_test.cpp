// Reading event-stream lines, instants and zones: each row is one line and what the replay must
// make of it (the event code, the action, or the error a person reads).
#include "tools/kltce/input/stream_line.h"

#include <gtest/gtest.h>

#include "tools/kltce/input/time_text.h"

namespace {

using kltce::LineKind;

struct LineCase {
  const char* line;
  const char* error;  // fragment of the expected error; nullptr: usable
  LineKind kind;
  unsigned long code;
  const char* note;
};

TEST(KltceStreamLine, ReadsEventsActionsAndNamesWhatIsWrong) {
  const LineCase cases[] = {
      {R"({"t":"2026-11-22T09:00:00Z","type":"app","name":"purchase","attributes":{"plan":"gold"}})", nullptr, LineKind::Event, 4, "app event"},
      {R"({"t":1795338000000,"type":"activity","name":"Home"})", nullptr, LineKind::Event, 1, "epoch ms"},
      {R"({"action":"shown","id":"x"})", nullptr, LineKind::Shown, 0, "shown"},
      {R"({"action":"parse"})", nullptr, LineKind::Parse, 0, "re-parse the start document"},
      {"[1,2]", "must be a JSON object, not array", LineKind::Event, 0, "not an object"},
      {R"({"t":1e300,"type":"app","name":"x"})", "\"t\" must be", LineKind::Event, 0, "time out of range"},
      {R"({"t":253402300800000,"type":"app","name":"x"})", "years 0001 to 9999", LineKind::Event, 0, "ms past 9999"},
      {R"({"t":-62135596800001,"type":"app","name":"x"})", "years 0001 to 9999", LineKind::Event, 0, "ms before 0001"},
      {R"({"t":18446744073709551615,"type":"app","name":"x"})", "\"t\" must be", LineKind::Event, 0, "huge ms"},
      {R"({"t":-9.3e18,"type":"app","name":"x"})", "\"t\" must be", LineKind::Event, 0, "huge negative float ms"},
      {R"({"type":"screen","name":"x"})", "unknown event type \"screen\"", LineKind::Event, 0, "unknown type"},
      {R"({"type":"activity","name":3})", "\"name\" must be text (the activity screen's name)", LineKind::Event, 0, "numeric name"},
      {R"({"type":"app","name":"x","attributes":[1]})", "\"attributes\" must be an object", LineKind::Event, 0, "list attributes"},
      {R"({"name":"x"})", "needs \"type\"", LineKind::Event, 0, "neither type nor action"},
      {R"({"action":"new_session","first_session":"yes"})", "true or false", LineKind::Event, 0, "text flag"},
      {R"({"action":"parse","file":"a","document":{}})", "not both", LineKind::Event, 0, "parse with both"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.note) + ": " + row.line);
    const kltce::LineResult r = kltce::parseStreamLine(row.line);
    if (row.error) {
      EXPECT_FALSE(r.line.has_value());
      EXPECT_NE(r.error.find(row.error), std::string::npos) << r.error;
      continue;
    }
    ASSERT_TRUE(r.line.has_value()) << r.error;
    EXPECT_EQ(r.line->kind, row.kind);
    EXPECT_EQ(r.line->code, row.code);
  }
}

struct FormatCase {
  int64_t millis;
  const char* zone;
  const char* expected;
};

}  // namespace
