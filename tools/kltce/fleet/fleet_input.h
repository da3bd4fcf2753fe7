// FleetReader: reads a fleet file, one device at a time, in one pass, holding only the present
// line (and the next device's first line, read to see where the present device ends).
//
// A fleet file is JSON Lines. Every line carries "device" (a non-empty text id). A device's lines
// are contiguous; the first is its profile line, {"device": "d1", "action": "profile", ...} with
// the keys of a device profile (profile.h); the lines after it, up to the next device's profile
// line, are its event stream, each a line of the event stream format (stream_line.h) with
// "device" added. Blank lines are skipped. A device's stream lines are numbered from 1 (its profile
// line and blank lines not counted), as in a file of that device's stream alone.
//
// Errors stop the reading (ok() false, error() names the fleet file's line): a line that is not
// JSON or has no usable "device", a device whose first line is not a profile line (its lines are
// not contiguous, or its profile line is missing), a second profile line for a device, a profile
// that cannot be used. A stream line that is JSON but not a usable event or action is not an
// error here: it reaches the replay, which skips it as `kltce run` does.
//
// Reading a line whose device is not wanted is cheap when "device" is its first key with a plain
// text value: the line is then not parsed as JSON (nextDevice() with a selection).
//
// A reader may be given a range of the file (a byte count from where the stream stands): it then
// reads those bytes as a fleet file of their own. Ranges that begin where fleetRangeStart() says
// split the file between devices, so that the devices of the ranges are those of the file.
//
// Not thread-safe: one owner; the LineSource of lines() is valid while the reader is.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <string_view>

#include "platform/KLTValue.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

// The id of the line's device when "device" is the line's first key and its value plain text
// (no escapes); nothing otherwise (the line must then be parsed to find it).
std::optional<std::string_view> leadingDeviceId(std::string_view line);

// Lines of a stream read in large blocks and handed out as views: a line passed over is never
// copied, and no line costs a read of its own. Reads at most `bytes` from where the stream
// stands. Lines are as std::getline gives them: a carriage return stays, the last line may lack
// its end of line. A line longer than the block costs time linear in its length: the buffer
// doubles and each byte is searched once. Not thread-safe.
class BlockLines {
 public:
  explicit BlockLines(std::istream& in, uint64_t bytes = UINT64_MAX, std::size_t block = 256 * 1024)
      : in_(in), left_(bytes), block_(block) {}
  // The next line, its "\n" taken off, valid until the next call; false at the end.
  bool next(std::string_view& line);

 private:
  std::istream& in_;
  uint64_t left_;  // bytes of in_ not read yet that are the reader's
  std::size_t block_;
  std::string buffer_;
  std::size_t begin_ = 0, end_ = 0;  // the part of buffer_ not yet handed out
  std::size_t scanned_ = 0;           // buffer_ up to here holds no end of line after begin_
  bool atEnd_ = false;                // in_ has no more to give
};

// Where a range of a fleet file may begin: the first start of a line in [from, to) whose leading
// device id differs from that of the line just before it (both read by leadingDeviceId(), as the
// reader reads them), that line starting at `from` or later. Nothing when there is none (or when
// `in` cannot be read: in.bad()). For 0 < from: reads `in` from byte from - 1 to at most a line
// past `to`, and no further than `to` when no line starts in [from, to) (a piece inside one long
// line), so that the pieces of a file cost, together, about one reading of it. The answer grows with `from`, so ranges from the answers at increasing offsets split
// the file without overlap.
std::optional<uint64_t> fleetRangeStart(std::istream& in, uint64_t from, uint64_t to);

// The number of lines that begin before byte `offset` (a line's start) of `in`: the number of
// the line there, less one. Reads `in` from its start.
std::size_t fleetLinesBefore(std::istream& in, uint64_t offset);

class FleetReader {
 public:
  // Reads at most `bytes` of `in`, from where it stands (all of it by default).
  explicit FleetReader(std::istream& in, uint64_t bytes = UINT64_MAX) : in_(in), textLines_(in, bytes) {}
  FleetReader(const FleetReader&) = delete;
  FleetReader& operator=(const FleetReader&) = delete;

  // Moves to the next device whose id `wanted` accepts (every device when empty), skipping what is
  // left of the present one and the devices in between. False at the end of the file or on an
  // error. On true, device() and profile() describe the device and lines() gives its stream.
  bool nextDevice(const std::function<bool(std::string_view id)>& wanted = {});

  const std::string& device() const { return device_; }
  const Profile& profile() const { return profile_; }
  std::size_t profileLine() const { return profileLine_; }
  // The present device's stream lines; it ends at the next device's first line or on an error.
  LineSource& lines() { return lines_; }
  // Stream lines of the present device read so far.
  std::size_t linesRead() const { return lines_.read; }

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  std::size_t errorLine() const { return errorLine_; }

 private:
  struct Line {
    std::string text;
    std::size_t number = 0;
    std::string device;
    std::optional<KLTValue> json;  // parsed when the device could not be read without parsing
  };
  class DeviceLines final : public LineSource {
   public:
    explicit DeviceLines(FleetReader& reader) : reader_(reader) {}
    bool next(std::size_t& number, LineResult& line) override;
    bool failed() const override { return reader_.in_.bad(); }
    std::size_t read = 0;

   private:
    FleetReader& reader_;
  };

  // Reads the next non-blank line into pending_ with its device; false at the end or on an error.
  // passOver: first pass over the lines of device_ (a device not replayed here, or the rest of
  // one): a line whose leading "device" is device_'s is left without being kept or parsed.
  bool readLine(bool passOver = false);
  bool fail(std::size_t line, std::string message);
  static bool isProfileLine(const KLTValue& json);

  std::istream& in_;
  BlockLines textLines_;
  std::string text_;
  std::size_t number_ = 0;
  std::optional<Line> pending_;  // the next line not yet handed out
  bool inDevice_ = false;        // pending_ (if any) may still belong to device_
  std::string device_;
  Profile profile_;
  std::size_t profileLine_ = 0;
  DeviceLines lines_{*this};
  std::string error_;
  std::size_t errorLine_ = 0;
};

}  // namespace kltce
