// KLTClock: the one source of "now" (UTC), of the local hour and minute, and of waiting.
//
// Nothing outside this seam reads the system clock or the time zone. The process-wide clock is a
// real clock until the embedding code (or a test, or the replay tool) installs another, such as a
// virtual clock that makes a 30-second timer fire without real waiting.
//
// The clock in effect is a seam (platform/KLTSeam.h): an engine instance binds its own clock on the
// thread that runs its tasks; elsewhere the process-wide clock is in effect.
//
// Thread-safety: every operation may be called from any thread. Reading the clock takes no
// process-wide lock.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "platform/KLTSeam.h"
#include "platform/KLTValue.h"

// A local wall-clock hour (0-23) and minute (0-59).
struct KLTLocalTime {
  int hour = 0;
  int minute = 0;
};

// A time zone: a named zone with its rules (through ICU), or a fixed offset from UTC.
class KLTTimeZone {
 public:
  // The zone named by an identifier such as "Europe/Paris" or "UTC"; nullptr when unknown.
  static std::shared_ptr<const KLTTimeZone> named(const std::string& id);
  // A fixed offset east of UTC, in minutes.
  static std::shared_ptr<const KLTTimeZone> fixedOffset(int minutesEast);
  // The process's own zone (the TZ environment variable, else the system's setting).
  static std::shared_ptr<const KLTTimeZone> system();

  KLTTimeZone(const KLTTimeZone&) = delete;
  KLTTimeZone& operator=(const KLTTimeZone&) = delete;
  virtual ~KLTTimeZone() = default;

  // Offset east of UTC in effect at the instant, in minutes (daylight saving included).
  virtual int offsetMinutesAt(KLTTimePoint t) const = 0;
  virtual std::string identifier() const = 0;
  // Local hour and minute of the instant in this zone.
  KLTLocalTime localTimeAt(KLTTimePoint t) const;

 protected:
  KLTTimeZone() = default;
};

// Thrown out of sleepUntil() by a clock that cannot block its thread for ever (a virtual clock
// told so, on a thread that drains a queue itself) when the deadline never comes. The queue that
// ran the waiting task catches it and stays held for good (platform/KLTDrainedSerialQueue.h);
// nothing else is meant to catch it.
struct KLTEndlessWait {};

class KLTClock {
 public:
  KLTClock() = default;
  KLTClock(const KLTClock&) = delete;
  KLTClock& operator=(const KLTClock&) = delete;
  virtual ~KLTClock() = default;

  // The present instant (UTC).
  virtual KLTTimePoint now() const = 0;
  // The zone in which local hours and minutes are read.
  virtual std::shared_ptr<const KLTTimeZone> timeZone() const = 0;
  // Present local hour and minute.
  KLTLocalTime localTime() const { return timeZone()->localTimeAt(now()); }
  // Blocks the calling thread until now() has reached the deadline (returns true) or a stop is
  // requested through the token (returns false). KLTTimePoint::max() is a deadline that never comes.
  virtual bool sleepUntil(KLTTimePoint deadline, std::stop_token stop) = 0;

  // The clock in effect on the calling thread: the one bound there, else the process-wide clock (a
  // real clock unless replaced). A thread that read the previous clock holds it until its next
  // read after a replacement.
  static std::shared_ptr<KLTClock> current();
  // current()->now(), without taking a reference to the clock (the engine reads it at every
  // completed count).
  static KLTTimePoint currentNow();
  // Replaces the process-wide clock; nullptr restores a real clock. Returns the previous one.
  // Threads that have a clock bound keep it.
  static std::shared_ptr<KLTClock> setCurrent(std::shared_ptr<KLTClock> clock);
  // The seam itself, to bind a clock on a thread.
  static KLTSeam<KLTClock>& seam();

  // Milliseconds since the Unix epoch of an instant.
  static int64_t epochMillis(KLTTimePoint t);
  // now + seconds, saturating at KLTTimePoint::max() (which never comes).
  static KLTTimePoint addSaturating(KLTTimePoint base, double seconds);
};

// The system clock, in the process's zone unless another zone is given.
class KLTRealClock final : public KLTClock {
 public:
  explicit KLTRealClock(std::shared_ptr<const KLTTimeZone> zone = nullptr);
  KLTTimePoint now() const override;
  std::shared_ptr<const KLTTimeZone> timeZone() const override { return zone_; }
  bool sleepUntil(KLTTimePoint deadline, std::stop_token stop) override;

 private:
  std::shared_ptr<const KLTTimeZone> zone_;
};
