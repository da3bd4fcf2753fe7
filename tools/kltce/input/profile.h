// The device profile of the kltce tool: what a device, its app, user and session look like to the
// engine (hardware model, app version, first session, time zone, attributes and custom info).
//
// A profile is a JSON object:
//   { "device_model": "iPhone14,2", "app_version": "2.4.1", "first_session": false,
//     "time_zone": "Europe/Paris",
//     "user":    { "attributes": {...}, "custom_info": {...} },
//     "session": { "attributes": {...}, "custom_info": {...} } }
// Every key is optional. parseProfile() rejects a value of the wrong kind with a message naming
// the key; unknown keys are reported as notes and ignored.
//
// applyProfile() writes the host state in effect on the calling thread (device name, first-session
// flag, app version, current user and session): an engine instance's environment where one is bound
// (a replay binds its own), else the process's.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/KLTClock.h"
#include "platform/KLTValue.h"

namespace kltce {

struct Profile {
  std::optional<std::string> deviceModel;  // nothing: the host's own default
  std::optional<std::string> appVersion;   // nothing: no version (version rules then fail)
  bool firstSession = false;
  std::optional<std::string> timeZoneText;
  std::shared_ptr<const KLTTimeZone> timeZone;  // set when timeZoneText is
  KLTValue userAttributes = KLTValue::object();
  KLTValue userCustomInfo = KLTValue::object();
  KLTValue sessionAttributes = KLTValue::object();
  KLTValue sessionCustomInfo = KLTValue::object();
};

struct ProfileResult {
  Profile profile;
  std::string error;               // empty when the profile is usable
  std::vector<std::string> notes;  // keys ignored
  bool ok() const { return error.empty(); }
};

// Reads a parsed profile document.
ProfileResult parseProfile(const KLTValue& document);

// Installs the profile as the host's state: device name (without a model: the host's own, as it
// was before any profile set one), first-session flag, app version, and a new user and session
// holding its attributes and custom info.
void applyProfile(const Profile& profile);

}  // namespace kltce
