// KLTCEFrequency: the frequency cap of one campaign, with the persisted counter map.
// KLTCETimeLimits: the daily time window of one campaign.
//
// The counters of every campaign live in one map under kKLTFrequencyStoreKey
// ("klt_frequency_config") in KLTUserDefaults::standardUserDefaults(): config identifier -> record
// dictionary (validity, limit, time_interval, count, ses_lmt, day_lmt, day, day_count,
// session_count). A record is never rebuilt from scratch: construction and update overwrite only
// the keys they own, so keys written under an earlier mode stay in it, unread.
//
// Thread-safety: both classes are used only on the evaluator's serial queue (no locks of their
// own). Each KLTCEFrequency keeps its own copy of the whole persisted map, read at construction and
// written back whole after each change: the last object to save wins, overwriting counters that
// another object saved since this one was built (and dropping records added since). The copy is a
// KLTSharedMap: taking it costs O(1), a check is a hash lookup, and a save hands the store a map
// that differs from what it holds only by this object's changes and what they overwrite.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/KLTSharedMap.h"
#include "platform/KLTValue.h"

class KLTCEFrequency {
 public:
  // Loads the map under "klt_frequency_config" from the standard user defaults, refreshes the
  // record of identifier from data (the document's `frequency` object, any value) and saves the
  // whole map. Limits below 1, absent or non-numeric are stored as 2147483647 (no limit). Validity
  // "SESSION" (exact) resets `count` to 0; any other validity is lifetime mode, where a new day
  // period (`day` := now, `day_count` := 0) begins when more than 24 whole hours have passed since
  // `day` or there is no `day`. A stored map or record that is not a dictionary is replaced by an
  // empty one, with an ERROR line. A failed save logs "Couldn't save enable SDK state" (ERROR) and
  // the object keeps working on its in-memory copy.
  KLTCEFrequency(const KLTValue& data, const std::string& identifier);

  // Whether the campaign may be shown once more; reads the in-memory copy only and changes
  // nothing (in particular it never opens a new day period). False for an unknown identifier.
  bool checkValidityAndCountForIdentifier(const std::string& identifier) const;
  // Which limit refuses one more showing, in the order the check reads them: in session mode only
  // `count` against `limit`; otherwise that first, then one secondary limit (`day_count` against
  // `day_lmt` when a day limit is set, else `session_count` against `ses_lmt`). None: allowed.
  enum class Limit { None, Count, DayCount, SessionCount };
  Limit blockingLimitForIdentifier(const std::string& identifier) const;
  // Counts one showing (`count`, and in lifetime mode `day_count` when a day limit is set, else
  // `session_count`) and saves the whole map. Logs "Updated count for identifier: <id>" (DEBUG)
  // on success, "Couldn't save enable SDK state" (ERROR) on failure.
  void updateFrequencyForIdentifier(const std::string& identifier);

  // The identifier this object was built for. Checking it by this very reference skips comparing
  // the text (the item asks at every completion of a condition).
  const std::string& identifier() const { return _identifier; }

  // This object's copy of the whole map, as a dictionary (built on each call: O(n)).
  KLTValue frequencyConfig() const { return _frequencyConfig.toDictionary(); }
  // This object's view of the record of identifier (null when it has none); a hash lookup, no copy.
  // Valid until this object next changes.
  const KLTValue& storedRecord(const std::string& identifier) const;

 private:
  // A copy of the stored record of identifier; empty (with an ERROR line naming method) when the
  // stored value is not a dictionary.
  KLTValue recordForIdentifier(const std::string& identifier, const char* method) const;
  // Sets the record of identifier in this object's map and drops the numbers a check kept.
  void setRecord(const std::string& identifier, KLTValue record);
  // Writes the whole map to the standard store and synchronizes; logs the failure under method.
  bool save(const char* method) const;

  // The numbers a check reads from the record of one identifier, as they stand in _frequencyConfig;
  // dropped whenever this object changes its map.
  struct CheckedRecord {
    std::string identifier;
    bool session = false;
    int32_t count = 0, limit = 0, dayLimit = 0, dayCount = 0, sessionCount = 0, sessionLimit = 0;
    bool own = false;  // asked for through identifier()
    static CheckedRecord of(const std::string& identifier, const KLTValue& record, bool own);
  };
  static Limit limitOf(const CheckedRecord& record);

  std::string _identifier;
  KLTSharedMap _frequencyConfig;  // identifier -> record
  mutable std::optional<CheckedRecord> _checked;
};

class KLTCETimeLimits {
 public:
  // Start and end texts "HH:MM"; any value is accepted. Each text is split on ":"; with two or more
  // pieces the first two are read with the C integer rule (leading white space, sign, digits up to
  // the first other character; none gives 0), so "9:5" is 09:05 and "7am:x" 07:00. A non-text or a
  // text without ":" gives 00:00. No range is enforced (25:75 is kept as it stands).
  KLTCETimeLimits(const KLTValue& startTime, const KLTValue& endTime);

  // The engine's reading of one "HH:MM" text (as above): hour and minute, 00:00 when unreadable.
  static std::pair<int64_t, int64_t> readTimeOfDay(const KLTValue& text);

  // Whether the present local time of KLTClock::current() lies in [start, end), comparing
  // (hour, minute) pairs; seconds are ignored and the window never wraps over midnight. Each
  // "outside" answer logs "Doesn't fall in between given time limits" (DEBUG).
  bool currentTimeBetweenLimits() const;

  int64_t startTimeHour() const { return _startTimeHour; }
  int64_t startTimeMin() const { return _startTimeMin; }
  int64_t endTimeHour() const { return _endTimeHour; }
  int64_t endTimeMin() const { return _endTimeMin; }

 private:
  static void parseTime(const KLTValue& text, int64_t& hour, int64_t& minute);

  int64_t _startTimeHour = 0;
  int64_t _startTimeMin = 0;
  int64_t _endTimeHour = 0;
  int64_t _endTimeMin = 0;
};
