// Device profiles: what a profile sets on the host, and the message a wrong value gets.
#include "tools/kltce/profile.h"

#include <gtest/gtest.h>

#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"
#include "testsupport/KLTTestHost.h"

namespace {

TEST(KltceProfile, WrongKindsAreNamed) {
  struct Row {
    const char* text;
    const char* error;  // fragment; "" means usable
  } rows[] = {
      {R"({})", ""},
      {R"({"device_model":"iPad13,1","app_version":"3.1","first_session":true,"time_zone":"+05:30"})", ""},
      {R"([])", "must be a JSON object"},
      {R"({"app_version": 2.1})", "\"app_version\" must be text"},
      {R"({"first_session": "yes"})", "\"first_session\" must be true or false"},
      {R"({"time_zone": "Europe/Atlantis"})", "unknown time zone \"Europe/Atlantis\""},
      {R"({"user": []})", "\"user\" must be an object"},
      {R"({"session": {"attributes": [1]}})", "\"session.attributes\" must be an object"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto r = kltce::parseProfile(KLTValue::parse(row.text));
    if (*row.error == '\0') {
      EXPECT_TRUE(r.ok()) << r.error;
    } else {
      EXPECT_NE(r.error.find(row.error), std::string::npos) << r.error;
    }
  }
}

TEST(KltceProfile, AppliesToTheHostAndNotesUnknownKeys) {
  KLTTestHost host;
  const auto r = kltce::parseProfile(KLTValue::parse(R"({
    "device_model": "iPad13,1", "app_version": "3.1", "first_session": true, "colour": "blue",
    "user": {"attributes": {"plan": "gold"}, "custom_info": {"first_name": "Ada"}, "age": 3},
    "session": {"attributes": {"channel": "push"}}})"));
  ASSERT_TRUE(r.ok()) << r.error;
  ASSERT_EQ(r.notes.size(), 2u);
  EXPECT_NE(r.notes[0].find("\"colour\""), std::string::npos);
  EXPECT_NE(r.notes[1].find("\"user.age\""), std::string::npos);
  kltce::applyProfile(r.profile);
  auto& c = KLTController::sharedController();
  EXPECT_EQ(KLTUtilities::deviceName(), "iPad13,1");
  EXPECT_TRUE(KLTUtilities::isFirstSession());
  EXPECT_EQ(KLTBundle::shortVersionString(), "3.1");
  EXPECT_EQ((*c.user()->userAttributes())["plan"], "gold");
  EXPECT_EQ((*c.user()->customInfo())["first_name"], "Ada");
  EXPECT_EQ((*c.session()->sessionAttributes())["channel"], "push");
  EXPECT_EQ(*c.session()->customInfo(), KLTValue::object());
}

}  // namespace
