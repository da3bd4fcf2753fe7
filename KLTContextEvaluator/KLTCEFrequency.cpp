#include "KLTContextEvaluator/KLTCEFrequency.h"

#include <chrono>
#include <cmath>
#include <limits>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCELogSites.h"
#include "platform/KLTClock.h"
#include "platform/KLTLog.h"
#include "platform/KLTUserDefaults.h"

namespace {

constexpr const char* kInitMethod = "-[KLTCEFrequency initWithData:withIdentifier:]";
constexpr const char* kUpdateMethod = "-[KLTCEFrequency updateFrequencyForIdentifier:]";

// The largest 32-bit signed integer stands for "no limit" in the stored records.
constexpr int32_t kNoLimit = std::numeric_limits<int32_t>::max();
constexpr int64_t kDayPeriodHours = 24;

bool isSessionMode(const KLTValue& validity) {
  const std::string* s = klt::stringPtr(validity);
  return s != nullptr && *s == "SESSION";
}

// A configured limit: below 1 (absent and non-numeric values read 0) means no limit.
int32_t limitValue(const KLTValue& v) {
  const int32_t limit = klt::int32Value(v);
  return limit < 1 ? kNoLimit : limit;
}

// Whole hours since the record's `day`, truncated toward zero. A record without a readable `day`
// has no current period, so it counts as older than any period.
bool dayPeriodIsOver(const KLTValue& record, KLTTimePoint now) {
  const auto day = klt::dateValue(klt::valueForKey(record, kKLTDay));
  if (!day) return true;
  // In floating microseconds, truncated toward zero: any two instants subtract without overflow.
  const double hours = (static_cast<double>(now.time_since_epoch().count()) -
                        static_cast<double>(day->time_since_epoch().count())) / 3.6e9;
  return std::trunc(hours) > static_cast<double>(kDayPeriodHours);
}

// An int32 counter plus one, kept in 64 bits so that a counter at the 32-bit maximum cannot wrap.
int64_t incremented32(const KLTValue& v) { return static_cast<int64_t>(klt::int32Value(v)) + 1; }

// Sets key to value, or removes key when value is null (absent in the document).
void setOrRemove(KLTValue& record, const char* key, const KLTValue& value) {
  if (value.is_null()) {
    record.erase(key);
  } else {
    record[key] = value;
  }
}

}  // namespace

KLTCEFrequency::KLTCEFrequency(const KLTValue& data, const std::string& identifier) : _identifier(identifier) {
  // A shared copy of the stored map: O(1), whatever the number of records.
  const auto store = KLTUserDefaults::standardUserDefaults();
  if (auto stored = store->sharedDictionaryForKey(kKLTFrequencyStoreKey)) {
    _frequencyConfig = std::move(*stored);
  } else if (!store->objectForKey(kKLTFrequencyStoreKey).is_null()) {
    KLT_LOG_SITE(KLTCELogSites::kCountersNotADictionary, "Stored frequency counters are not a dictionary; starting from an empty map");
  }

  KLTValue record = recordForIdentifier(identifier, kInitMethod);

  const KLTValue& validity = klt::valueForKey(data, kKLTValidity);
  setOrRemove(record, kKLTValidity, validity);
  record[kKLTLimit] = limitValue(klt::valueForKey(data, kKLTCount));
  setOrRemove(record, kKLTTimeInterval, klt::valueForKey(data, kKLTTimeInterval));

  if (isSessionMode(validity)) {
    // A session cap counts from zero at every parse of the configuration.
    record[kKLTCount] = 0;
  } else {
    record[kKLTSessionLimit] = limitValue(klt::valueForKey(data, kKLTSessionLimit));
    record[kKLTDayLimit] = limitValue(klt::valueForKey(data, kKLTDayLimit));
    if (dayPeriodIsOver(record, KLTClock::current()->now())) {
      record[kKLTDay] = klt::makeDate(KLTClock::current()->now());
      record[kKLTDayCount] = 0;
    }
  }

  setRecord(identifier, std::move(record));
  save(kInitMethod);
}

bool KLTCEFrequency::checkValidityAndCountForIdentifier(const std::string& identifier) const {
  // A check runs at every completion of a condition, an update only at a showing: the numbers of
  // the record are read once per change of the map, not at every check (setRecord() drops them
  // whenever this object changes its map).
  if (const bool own = &identifier == &_identifier; !_checked || !(own ? _checked->own : _checked->identifier == identifier)) _checked = CheckedRecord::of(identifier, storedRecord(identifier), own);
  return limitOf(*_checked) == Limit::None;
}

KLTCEFrequency::Limit KLTCEFrequency::blockingLimitForIdentifier(const std::string& identifier) const {
  return checkValidityAndCountForIdentifier(identifier) ? Limit::None : limitOf(*_checked);
}

KLTCEFrequency::Limit KLTCEFrequency::limitOf(const CheckedRecord& r) {
  if (r.session) return r.count < r.limit ? Limit::None : Limit::Count;
  if (r.count >= r.limit) return Limit::Count;
  // Only one secondary limit applies: a set day limit hides the session limit. The age of `day`
  // is deliberately not looked at here; only a construction or an update opens a new period.
  if (r.dayLimit != kNoLimit) return r.dayCount < r.dayLimit ? Limit::None : Limit::DayCount;
  return r.sessionCount < r.sessionLimit ? Limit::None : Limit::SessionCount;
}

void KLTCEFrequency::updateFrequencyForIdentifier(const std::string& identifier) {
  KLTValue record = recordForIdentifier(identifier, kUpdateMethod);

  if (!isSessionMode(klt::valueForKey(record, kKLTValidity))) {
    // A record without `day_lmt` reads 0 here, which is not "no limit": the day branch is taken.
    if (klt::int32Value(klt::valueForKey(record, kKLTDayLimit)) != kNoLimit) {
      const KLTTimePoint now = KLTClock::current()->now();
      if (!dayPeriodIsOver(record, now)) {
        record[kKLTDayCount] = incremented32(klt::valueForKey(record, kKLTDayCount));
      } else {
        // The showing that opens a period counts in it.
        record[kKLTDay] = klt::makeDate(now);
        record[kKLTDayCount] = 1;
      }
    } else {
      record[kKLTSessionCount] = incremented32(klt::valueForKey(record, kKLTSessionCount));
    }
  }
  const int64_t count = klt::integerValue(klt::valueForKey(record, kKLTCount));
  record[kKLTCount] = count == std::numeric_limits<int64_t>::max() ? count : count + 1;

  setRecord(identifier, std::move(record));
  if (save(kUpdateMethod)) KLT_LOG_SITE(KLTCELogSites::kUpdatedCount, "Updated count for identifier: " + identifier);
}

const KLTValue& KLTCEFrequency::storedRecord(const std::string& identifier) const {
  static const KLTValue kAbsent;
  const KLTValue* record = _frequencyConfig.find(identifier);
  return record ? *record : kAbsent;
}

KLTValue KLTCEFrequency::recordForIdentifier(const std::string& identifier, const char* method) const {
  const KLTValue& stored = storedRecord(identifier);
  if (klt::isDictionary(stored)) return stored;
  if (!stored.is_null()) {
    KLT_LOG_AT(KLTLogLevel::Error, method, KLTCELogSites::kRecordNotADictionaryLine,
               "Stored frequency record for identifier " + identifier + " is not a dictionary; starting it afresh");
  }
  return KLTValue::object();
}

bool KLTCEFrequency::save(const char* method) const {
  // The whole map is written back, other configs' records included: the last object to save wins.
  // Handing over the shared map costs O(1); the store writes only the entries that differ.
  const auto store = KLTUserDefaults::standardUserDefaults();
  store->setSharedDictionary(_frequencyConfig, kKLTFrequencyStoreKey);
  if (store->synchronize()) return true;
  KLT_LOG_AT(KLTLogLevel::Error, method, KLTCELogSites::kCouldNotSaveLine, "Couldn't save enable SDK state");
  return false;
}

KLTCETimeLimits::KLTCETimeLimits(const KLTValue& startTime, const KLTValue& endTime) {
  parseTime(startTime, _startTimeHour, _startTimeMin);
  parseTime(endTime, _endTimeHour, _endTimeMin);
}

std::pair<int64_t, int64_t> KLTCETimeLimits::readTimeOfDay(const KLTValue& text) {
  std::pair<int64_t, int64_t> time{0, 0};
  parseTime(text, time.first, time.second);
  return time;
}

void KLTCETimeLimits::parseTime(const KLTValue& text, int64_t& hour, int64_t& minute) {
  const std::string* s = klt::stringPtr(text);
  if (s == nullptr) return;
  const std::size_t colon = s->find(':');
  if (colon == std::string::npos) return;
  // Pieces beyond the second are ignored: a number is read only up to the first character that is
  // not part of it, and a colon never is.
  const std::string_view all(*s);
  hour = klt::parseInteger(all.substr(0, colon));
  minute = klt::parseInteger(all.substr(colon + 1));
}

void KLTCEFrequency::setRecord(const std::string& identifier, KLTValue record) {
  _frequencyConfig.set(identifier, std::move(record));
  _checked.reset();
}

bool KLTCETimeLimits::currentTimeBetweenLimits() const {
  const KLTLocalTime local = KLTClock::current()->localTime();
  const int64_t h = local.hour;
  const int64_t m = local.minute;
  // The window is start <= now < end on (hour, minute) pairs, with no wrap over midnight: a window
  // whose end lies before its start contains no time at all.
  const bool started = _startTimeHour < h || (_startTimeHour == h && _startTimeMin <= m);
  const bool ended = _endTimeHour < h || (_endTimeHour == h && _endTimeMin <= m);
  const bool inside = started && !ended;
  if (!inside) KLT_LOG_SITE_FIXED(KLTCELogSites::kOutsideTimeLimits, "Doesn't fall in between given time limits");
  return inside;
}

KLTCEFrequency::CheckedRecord KLTCEFrequency::CheckedRecord::of(const std::string& identifier, const KLTValue& record, bool own) {
  const auto number = [&](const char* key) { return klt::int32Value(klt::valueForKey(record, key)); };
  return CheckedRecord{identifier,
                       isSessionMode(klt::valueForKey(record, kKLTValidity)),
                       number(kKLTCount),
                       number(kKLTLimit),
                       number(kKLTDayLimit),
                       number(kKLTDayCount),
                       number(kKLTSessionCount),
                       number(kKLTSessionLimit),
                       own};
}
