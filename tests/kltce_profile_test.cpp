// Device profiles: the message a wrong value gets, and unknown keys noted. (What a profile sets on
// the host shows in the end-to-end runs of kltce_tool.cmake.)
#include "tools/kltce/input/profile.h"

#include <gtest/gtest.h>

namespace {

TEST(KltceProfile, WrongKindsAreNamedAndUnknownKeysNoted) {
  struct Row {
    const char* text;
    const char* message;  // error, or the note of a usable profile
  } rows[] = {
      {R"([])", "must be a JSON object"},
      {R"({"app_version": 2.1})", "\"app_version\" must be text"},
      {R"({"first_session": "yes"})", "\"first_session\" must be true or false"},
      {R"({"time_zone": "Europe/Atlantis"})", "unknown time zone \"Europe/Atlantis\""},
      {R"({"session": {"attributes": [1]}})", "\"session.attributes\" must be an object"},
      {R"({"time_zone": "+05:30", "user": {"age": 3}})", "\"user.age\""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto r = kltce::parseProfile(KLTValue::parse(row.text));
    const std::string message = r.ok() ? (r.notes.empty() ? "" : r.notes[0]) : r.error;
    EXPECT_NE(message.find(row.message), std::string::npos) << message;
  }
}

}  // namespace
