#include "tools/kltce/cli/state_command.h"

#include <chrono>
#include <system_error>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "platform/KLTStoreLock.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/time_text.h"

namespace kltce {

namespace {

namespace fs = std::filesystem;

// The engine opens a new day period once more than 24 whole hours have passed.
constexpr auto kNextDayPeriod = std::chrono::hours(25);

std::string isoText(KLTTimePoint t) {
  static const auto utc = zoneFromText("UTC");
  return formatInstant(t, *utc);
}

// Dates anywhere in the value become ISO text; the walk is bounded by the store's own depth.
KLTValue withDatesAsText(const KLTValue& v) {
  if (auto t = klt::dateValue(v)) return isoText(*t);
  if (v.is_object()) {
    KLTValue out = KLTValue::object();
    for (const auto& [key, item] : v.items()) out[key] = withDatesAsText(item);
    return out;
  }
  if (v.is_array()) {
    KLTValue out = KLTValue::array();
    for (const auto& item : v) out.push_back(withDatesAsText(item));
    return out;
  }
  return v;
}

bool storeExists(const fs::path& path) {
  std::error_code ec;
  fs::path journal = path;
  journal += ".journal";
  return fs::is_regular_file(path, ec) || fs::is_regular_file(journal, ec);
}

}  // namespace

KLTValue countersForDisplay(const KLTValue& stored) {
  KLTValue out = KLTValue::object();
  if (!stored.is_object()) return out;
  for (const auto& [id, record] : stored.items()) {
    KLTValue shown = withDatesAsText(record);
    if (auto day = klt::dateValue(klt::valueForKey(record, kKLTDay))) shown["next_day_period"] = isoText(*day + kNextDayPeriod);
    out[id] = std::move(shown);
  }
  return out;
}

int runStateShow(const fs::path& path, std::ostream& out, std::ostream& err) {
  if (!storeExists(path)) {
    err << "kltce: state: no counters stored at '" << path.string() << "'\n";
    return 2;
  }
  // Read only: showing never writes, moves or creates anything, and a read-only file will do.
  const KLTUserDefaults store(path, nullptr, KLTStoreAccess::ReadOnly);
  if (!store.unusable().empty()) {
    err << "kltce: state: " << store.unusable() << '\n';
    return 2;
  }
  KLTValue report = KLTValue::object();
  report["state"] = path.string();
  report["counters"] = countersForDisplay(store.objectForKey(kKLTFrequencyStoreKey));
  out << compactJson(report) << '\n';
  return 0;
}

int runStateReset(const fs::path& path, std::ostream& out, std::ostream& err) {
  if (!storeExists(path)) {
    out << "nothing to clear at '" << path.string() << "'\n";
    return 0;
  }
  std::string why;
  const auto lock = KLTStoreLock::acquire(path, why);
  if (!lock) {
    err << "kltce: state: cannot reset '" << path.string() << "': " << why << '\n';
    return 2;
  }
  KLTUserDefaults store(path);
  if (!store.unusable().empty()) {
    err << "kltce: state: " << store.unusable() << '\n';
    return 2;
  }
  const KLTValue stored = store.objectForKey(kKLTFrequencyStoreKey);
  store.removeObjectForKey(kKLTFrequencyStoreKey);
  if (!store.synchronize()) {
    err << "kltce: state: could not write '" << path.string() << "'\n";
    return 2;
  }
  out << "cleared the counters of " << (stored.is_object() ? stored.size() : 0) << " campaign(s) in '"
      << path.string() << "'\n";
  return 0;
}

}  // namespace kltce
