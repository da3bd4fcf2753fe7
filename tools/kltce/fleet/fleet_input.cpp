#include "tools/kltce/fleet/fleet_input.h"

#include <algorithm>
#include <cstring>

#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/stream_line.h"

namespace kltce {

namespace {

bool isBlank(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
}

std::string jsonError(const JsonResult& r) { return (r.tooDeep ? "refused: " : "not valid JSON: ") + r.error; }

}  // namespace

std::optional<std::string_view> leadingDeviceId(std::string_view s) {
  std::size_t i = 0;
  const auto space = [&] {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r')) ++i;
  };
  const auto take = [&](std::string_view word) {
    space();
    if (s.size() - i < word.size() || std::memcmp(s.data() + i, word.data(), word.size()) != 0) return false;
    i += word.size();
    return true;
  };
  if (!take("{") || !take("\"device\"") || !take(":") || !take("\"")) return std::nullopt;
  const std::size_t start = i;
  const void* quote = std::memchr(s.data() + start, '"', s.size() - start);
  if (!quote) return std::nullopt;
  const std::string_view id = s.substr(start, static_cast<std::size_t>(static_cast<const char*>(quote) - s.data()) - start);
  for (char c : id) {
    if (c == '\\' || static_cast<unsigned char>(c) < 0x20) return std::nullopt;
  }
  if (id.empty()) return std::nullopt;
  return id;
}

bool FleetReader::fail(std::size_t line, std::string message) {
  if (error_.empty()) {
    error_ = std::move(message);
    errorLine_ = line;
  }
  pending_.reset();
  return false;
}

bool FleetReader::isProfileLine(const KLTValue& json) {
  const auto action = json.find("action");
  return action != json.end() && action->is_string() && action->get_ref<const std::string&>() == "profile";
}

bool BlockLines::next(std::string_view& line) {
  for (;;) {
    const char* begin = buffer_.data() + begin_;
    const std::size_t from = std::max(begin_, scanned_);
    if (const void* newline = std::memchr(buffer_.data() + from, '\n', end_ - from)) {
      const auto length = static_cast<std::size_t>(static_cast<const char*>(newline) - begin);
      line = std::string_view(begin, length);
      begin_ += length + 1;
      scanned_ = begin_;
      return true;
    }
    scanned_ = end_;
    if (atEnd_) {
      if (begin_ == end_) return false;
      line = std::string_view(begin, end_ - begin_);  // the last line, without an end of line
      begin_ = end_;
      return true;
    }
    // The start of a line stays, moved to the front; a line longer than the block makes it grow,
    // to twice its size at the least, so that a long line is not read and moved again and again.
    buffer_.erase(0, begin_);
    end_ -= begin_;
    scanned_ -= begin_;
    begin_ = 0;
    if (end_ + block_ > buffer_.size()) buffer_.resize(std::max(end_ + block_, 2 * buffer_.size()));
    const auto want = static_cast<std::size_t>(std::min<uint64_t>(buffer_.size() - end_, left_));
    in_.read(buffer_.data() + end_, static_cast<std::streamsize>(want));
    const auto got = static_cast<std::size_t>(in_.gcount());
    end_ += got;
    left_ -= got;
    atEnd_ = !in_ || left_ == 0;
  }
}

std::optional<uint64_t> fleetRangeStart(std::istream& in, uint64_t from, uint64_t to) {
  if (from == 0) return 0;
  in.clear();
  if (!in.seekg(static_cast<std::streamoff>(from - 1))) return std::nullopt;
  // The line holding byte from - 1 ends there or later; the first line to look at follows it. It
  // is passed over without being kept, and not beyond `to`: a piece inside a long line reads no
  // more than its own bytes.
  uint64_t at = from - 1;
  char block[16 * 1024];
  for (bool found = false; !found;) {
    if (at >= to) return std::nullopt;
    in.read(block, static_cast<std::streamsize>(std::min<uint64_t>(sizeof block, to - at)));
    const auto got = static_cast<std::size_t>(in.gcount());
    if (got == 0) return std::nullopt;
    const void* newline = std::memchr(block, '\n', got);
    found = newline != nullptr;
    at += found ? static_cast<uint64_t>(static_cast<const char*>(newline) - block) + 1 : got;
  }
  if (at >= to) return std::nullopt;
  in.clear();
  if (!in.seekg(static_cast<std::streamoff>(at))) return std::nullopt;
  // Blocks about the size of one device's lines: the answer is mostly a device away.
  BlockLines lines(in, UINT64_MAX, 16 * 1024);
  std::string_view line;
  std::optional<std::string> before;  // the id of the line before `at`, when it starts at `from` or later
  while (at < to && lines.next(line)) {
    const auto id = leadingDeviceId(line);
    if (before && id && *id != *before) return at;
    before = id ? std::optional<std::string>(*id) : std::nullopt;
    at += line.size() + 1;
  }
  return std::nullopt;
}

std::size_t fleetLinesBefore(std::istream& in, uint64_t offset) {
  in.clear();
  if (!in.seekg(0)) return 0;
  BlockLines lines(in, offset);
  std::size_t count = 0;
  for (std::string_view line; lines.next(line);) ++count;
  return count;
}

bool FleetReader::readLine(bool passOver) {
  std::string_view view;
  while (ok() && textLines_.next(view)) {
    ++number_;
    if (isBlank(view)) continue;
    const auto id = leadingDeviceId(view);
    // A device passed over (another worker's, or the rest of one) costs no more than its ids.
    if (passOver && id && *id == device_) continue;
    // Each line's text moves on with the line; a device's stream lines give theirs back once read
    // (DeviceLines::next), so this storage is mostly the last line's.
    text_.assign(view);
    Line line;
    line.number = number_;
    if (id) {
      line.device = *id;
    } else {
      JsonResult r = parseJson(text_);
      if (!r.ok()) return fail(number_, jsonError(r) + " (so its device is unknown)");
      const KLTValue& device = klt::valueForKey(r.value, "device");
      if (!device.is_string() || device.get_ref<const std::string&>().empty()) {
        return fail(number_, "a fleet line needs \"device\": the device's id as non-empty text");
      }
      line.device = device.get_ref<const std::string&>();
      line.json = std::move(r.value);
    }
    line.text = std::move(text_);
    pending_ = std::move(line);
    return true;
  }
  return false;
}

bool FleetReader::nextDevice(const std::function<bool(std::string_view id)>& wanted) {
  for (;;) {
    if (!pending_ && !readLine(inDevice_)) return false;
    if (inDevice_ && pending_->device == device_) {
      pending_.reset();  // the rest of the device before
      continue;
    }
    Line& first = *pending_;
    device_ = first.device;
    profileLine_ = first.number;
    inDevice_ = true;
    lines_.read = 0;
    if (wanted && !wanted(device_)) {
      pending_.reset();
      continue;
    }
    if (!first.json) {
      JsonResult r = parseJson(first.text);
      if (!r.ok()) return fail(first.number, jsonError(r));
      first.json = std::move(r.value);
    }
    if (!isProfileLine(*first.json)) {
      return fail(first.number, "device '" + device_ +
                                    "' begins without its profile line: a device's lines must be contiguous, its "
                                    "profile line ({\"device\": ..., \"action\": \"profile\", ...}) first");
    }
    KLTValue profile = std::move(*first.json);
    profile.erase("device");
    profile.erase("action");
    ProfileResult p = parseProfile(profile);
    if (!p.ok()) return fail(first.number, "device '" + device_ + "': profile: " + p.error);
    profile_ = std::move(p.profile);
    pending_.reset();
    return true;
  }
}

bool FleetReader::DeviceLines::next(std::size_t& number, LineResult& line) {
  FleetReader& r = reader_;
  if (!r.pending_ && !r.readLine()) return false;
  if (r.pending_->device != r.device_) return false;  // the next device's first line
  Line l = std::move(*r.pending_);
  r.pending_.reset();
  // Once read, the line's text goes back to the reader, whose next line then needs no new storage.
  struct GiveBack {
    std::string& from;
    std::string& to;
    ~GiveBack() { to = std::move(from); }
  } giveBack{l.text, r.text_};
  if (!l.json) {
    if (readStreamLineQuickly(l.text, true, line.line.emplace())) {
      number = ++read;
      line.error.clear();
      return true;
    }
  }
  KLTValue json;
  if (l.json) {
    json = std::move(*l.json);
  } else {
    JsonResult parsed = parseJson(l.text);
    if (!parsed.ok()) {
      number = ++read;
      line = LineResult{std::nullopt, jsonError(parsed)};
      return true;
    }
    json = std::move(parsed.value);
  }
  if (isProfileLine(json)) {
    return r.fail(l.number, "a second profile line for device '" + r.device_ +
                                "': a device's lines must be contiguous, its profile line first");
  }
  if (json.is_object()) json.erase("device");
  number = ++read;
  line = streamLineFromObject(json);
  return true;
}

}  // namespace kltce
