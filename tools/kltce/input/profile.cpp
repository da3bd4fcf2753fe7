#include "tools/kltce/input/profile.h"

#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"
#include "tools/kltce/input/time_text.h"

namespace kltce {

namespace {

// Reads {"attributes": {...}, "custom_info": {...}} under key; false (error set) on a wrong kind.
bool readHolder(const KLTValue& document, const std::string& key, KLTValue& attributes, KLTValue& customInfo,
                ProfileResult& r) {
  const KLTValue& holder = klt::valueForKey(document, key);
  if (holder.is_null()) return true;
  if (!holder.is_object()) {
    r.error = "\"" + key + "\" must be an object with \"attributes\" and \"custom_info\"";
    return false;
  }
  for (const auto& [k, v] : holder.items()) {
    if (k == "attributes" || k == "custom_info") {
      if (!v.is_object()) {
        r.error = "\"" + key + "." + k + "\" must be an object";
        return false;
      }
      (k == "attributes" ? attributes : customInfo) = v;
    } else {
      r.notes.push_back("unknown key \"" + key + "." + k + "\" ignored");
    }
  }
  return true;
}

}  // namespace

ProfileResult parseProfile(const KLTValue& document) {
  ProfileResult r;
  if (!document.is_object()) {
    r.error = "a profile must be a JSON object";
    return r;
  }
  Profile& p = r.profile;
  for (const auto& [key, v] : document.items()) {
    if (key == "device_model" || key == "app_version" || key == "time_zone") {
      if (!v.is_string()) {
        r.error = "\"" + key + "\" must be text";
        return r;
      }
      const std::string& s = v.get_ref<const std::string&>();
      if (key == "device_model") p.deviceModel = s;
      if (key == "app_version") p.appVersion = s;
      if (key == "time_zone") {
        p.timeZone = zoneFromText(s);
        if (!p.timeZone) {
          r.error = "\"time_zone\": unknown time zone \"" + s + "\" (use an IANA name such as Europe/Paris, or +HH:MM)";
          return r;
        }
        p.timeZoneText = s;
      }
    } else if (key == "first_session") {
      if (!v.is_boolean()) {
        r.error = "\"first_session\" must be true or false";
        return r;
      }
      p.firstSession = v.get<bool>();
    } else if (key != "user" && key != "session") {
      r.notes.push_back("unknown key \"" + key + "\" ignored");
    }
  }
  if (!readHolder(document, "user", p.userAttributes, p.userCustomInfo, r)) return r;
  readHolder(document, "session", p.sessionAttributes, p.sessionCustomInfo, r);
  return r;
}

void applyProfile(const Profile& profile) {
  // A profile without a model gets the host's own, as in a fresh process, not the model of a
  // device replayed before it (kltce fleet). Read before any profile set one.
  static const std::string hostModel = KLTUtilities::deviceName();
  KLTUtilities::setDeviceName(profile.deviceModel ? *profile.deviceModel : hostModel);
  KLTUtilities::setFirstSession(profile.firstSession);
  KLTBundle::setShortVersionString(profile.appVersion);
  auto user = std::make_shared<KLTUser>();
  user->setUserAttributes(profile.userAttributes);
  user->setCustomInfo(profile.userCustomInfo);
  auto session = std::make_shared<KLTSession>();
  session->setSessionAttributes(profile.sessionAttributes);
  session->setCustomInfo(profile.sessionCustomInfo);
  KLTController& controller = KLTController::current();
  controller.setUser(std::move(user));
  controller.setSession(std::move(session));
}

}  // namespace kltce
