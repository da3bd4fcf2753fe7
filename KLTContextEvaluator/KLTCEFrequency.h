// KLTCEFrequency: the frequency cap of one campaign, with the persisted counter map.
// KLTCETimeLimits: the daily time window of one campaign.
//
// Thread-safety: both are used only on the evaluator's serial queue (no locks of their own).
// Each KLTCEFrequency keeps its own copy of the whole persisted map, read at construction and
// written back whole after each change: the last object to save wins.
#pragma once

#include <cstdint>
#include <string>

#include "platform/KLTValue.h"

class KLTCEFrequency {
 public:
  // Loads the map under "klt_frequency_config" from the standard user defaults, refreshes the
  // record of identifier from data (the document's `frequency` object, any value) and saves the
  // whole map. A failed save logs "Couldn't save enable SDK state" at ERROR level.
  KLTCEFrequency(const KLTValue& data, const std::string& identifier);

  // Whether the campaign may be shown once more; reads the in-memory copy only.
  bool checkValidityAndCountForIdentifier(const std::string& identifier) const;
  // Counts one showing and saves the whole map.
  void updateFrequencyForIdentifier(const std::string& identifier);

  // This object's copy of the whole map.
  const KLTValue& frequencyConfig() const { return _frequencyConfig; }

 private:
  KLTValue _frequencyConfig;
};

class KLTCETimeLimits {
 public:
  // Start and end texts "HH:MM"; any value is accepted (a non-text or one without ":" gives 00:00).
  KLTCETimeLimits(const KLTValue& startTime, const KLTValue& endTime);

  // Whether the present local time (KLTClock::current()) lies in [start, end).
  bool currentTimeBetweenLimits() const;

  int64_t startTimeHour() const { return _startTimeHour; }
  int64_t startTimeMin() const { return _startTimeMin; }
  int64_t endTimeHour() const { return _endTimeHour; }
  int64_t endTimeMin() const { return _endTimeMin; }

 private:
  int64_t _startTimeHour = 0;
  int64_t _startTimeMin = 0;
  int64_t _endTimeHour = 0;
  int64_t _endTimeMin = 0;
};
