#include "tools/kltce/input/plain_stream_line.h"

#include <array>
#include <cstdint>
#include <string>

#include "host/KLTEvent.h"
#include "platform/KLTFastJson.h"
#include "tools/kltce/input/time_text.h"

namespace kltce {

namespace {

// What a byte is to the scanning of a text and of the white space between tokens.
enum ByteClass : unsigned char { kPlain, kQuote, kPastAscii, kSpace, kStop };

constexpr std::array<ByteClass, 256> byteClasses() {
  std::array<ByteClass, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = kStop;  // not allowed raw in a text
  for (int c = 0x80; c < 0x100; ++c) table[c] = kPastAscii;
  table['"'] = kQuote;
  table['\\'] = kStop;
  // White space between tokens; inside a text a space is plain and the others may not stand raw.
  for (const char c : {' ', '\t', '\n', '\r'}) table[static_cast<unsigned char>(c)] = kSpace;
  return table;
}
constexpr std::array<ByteClass, 256> kClass = byteClasses();

enum Key : unsigned {
  None = 0,
  T = 1,
  Type = 2,
  Name = 4,
  Attributes = 8,
  Device = 16,
  Action = 32,
  Id = 64,
  CustomInfo = 128,
  FirstSession = 256,
};

// Walks a text token by token. Every reading answers false at the first thing that is not plain
// JSON; the whole line is then left to the readings that take any JSON.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

  bool take(char c) {
    if (peek() != c) return false;
    ++p_;
    return true;
  }

  // The next character past JSON's white space; '\0' at the end.
  char peek() {
    while (p_ != end_ && kClass[static_cast<unsigned char>(*p_)] == kSpace) ++p_;
    return p_ == end_ ? '\0' : *p_;
  }

  bool atEnd() { return peek() == '\0' && p_ == end_; }

  // A text without escapes or control characters. Bytes past ASCII are taken and remembered, for
  // the whole text's UTF-8 to be checked once at the end.
  bool text(std::string_view& out) {
    if (!take('"')) return false;
    const char* const start = p_;
    const char* const end = end_;
    const char* q = p_;  // a local the loop keeps in a register
    for (;;) {
      while (q != end && kClass[static_cast<unsigned char>(*q)] == kPlain) ++q;
      if (q == end) return false;
      switch (kClass[static_cast<unsigned char>(*q)]) {
        case kQuote:
          out = std::string_view(start, static_cast<std::size_t>(q - start));
          p_ = q + 1;
          return true;
        case kPastAscii:
          pastAscii_ = true;
          ++q;
          break;
        case kSpace:
          if (*q != ' ') return false;  // a tab or a line break may not stand raw in a text
          ++q;
          break;
        default:  // an escape or a control character
          return false;
      }
    }
  }

  // The next key when it is one of the common lines' keys written as such, taken with its quotes;
  // None (nothing taken) for any other, which text() then reads. Spares scanning the usual keys.
  Key knownKey(bool deviceKey) {
    if (peek() != '"') return None;
    switch (p_ + 1 == end_ ? '\0' : p_[1]) {
      case 't': return word("\"t\"") ? T : word("\"type\"") ? Type : None;
      case 'n': return word("\"name\"") ? Name : None;
      case 'a': return word("\"attributes\"") ? Attributes : word("\"action\"") ? Action : None;
      case 'd': return deviceKey && word("\"device\"") ? Device : None;
      case 'i': return word("\"id\"") ? Id : None;
      default: return None;
    }
  }

  // The given word, taken when it comes next.
  bool word(std::string_view w) {
    peek();
    if (static_cast<std::size_t>(end_ - p_) < w.size() || std::string_view(p_, w.size()) != w) return false;
    p_ += w.size();
    return true;
  }

  // A whole number, as a signed one. False for a fraction, an exponent, a leading zero, a negative
  // zero (which the library keeps signed, where every other non-negative number is unsigned), or
  // more digits than surely fit.
  bool integer(int64_t& out) {
    peek();
    const bool negative = p_ != end_ && *p_ == '-';
    const char* digits = p_ + (negative ? 1 : 0);
    const char* q = digits;
    uint64_t v = 0;
    for (; q != end_; ++q) {
      const auto digit = static_cast<unsigned>(static_cast<unsigned char>(*q) - '0');
      if (digit > 9) break;
      v = v * 10 + digit;
    }
    const auto n = q - digits;
    if (n == 0 || n > 18 || (*digits == '0' && (n > 1 || negative))) return false;
    if (q != end_ && (*q == '.' || *q == 'e' || *q == 'E')) return false;
    p_ = q;
    out = negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
    return true;
  }

  // The same as the JSON library keeps it: unsigned unless negative.
  bool integer(KLTValue& out) {
    int64_t v = 0;
    if (!integer(v)) return false;
    if (v < 0) {
      out = v;
    } else {
      out = static_cast<uint64_t>(v);
    }
    return true;
  }

  // A text, a whole number, a boolean or null.
  bool scalar(KLTValue& out) {
    switch (peek()) {
      case '"': {
        std::string_view s;
        if (!text(s)) return false;
        out = std::string(s);
        return true;
      }
      case 't':
        out = true;
        return word("true");
      case 'f':
        out = false;
        return word("false");
      case 'n':
        out = nullptr;
        return word("null");
      default:
        return integer(out);
    }
  }

  // An object of scalars into out, an object already.
  bool flatObject(KLTValue& out) {
    if (!take('{')) return false;
    auto& fields = *out.get_ptr<KLTValue::object_t*>();
    if (take('}')) return true;
    do {
      std::string_view key;
      KLTValue value;
      if (!text(key) || !take(':') || !scalar(value)) return false;
      // As the library builds an object: a repeated key keeps its first place and its last value.
      if (auto it = fields.find(key); it != fields.end()) {
        it->second = std::move(value);
      } else {
        fields.emplace_back(std::string(key), std::move(value));
      }
    } while (take(','));
    return take('}');
  }

  bool pastAscii() const { return pastAscii_; }

 private:
  const char* p_;
  const char* end_;
  bool pastAscii_ = false;
};

Key keyOf(std::string_view key, bool deviceKey) {
  if (key == "t") return T;
  if (key == "type") return Type;
  if (key == "name") return Name;
  if (key == "attributes") return Attributes;
  if (key == "action") return Action;
  if (key == "id") return Id;
  if (key == "custom_info") return CustomInfo;
  if (key == "first_session") return FirstSession;
  return deviceKey && key == "device" ? Device : None;
}

// The keys each kind of line may have besides "t" (and a fleet's "device"); any other is noted.
constexpr unsigned kEventKeys = Type | Name | Attributes;
constexpr unsigned kShownKeys = Action | Id;
constexpr unsigned kNewSessionKeys = Action | Attributes | CustomInfo | FirstSession;
// The keys whose null the general reading takes as the key left out.
constexpr unsigned kMayBeNull = T | Name | Attributes | CustomInfo | FirstSession;

}  // namespace

PlainReading readPlainLine(std::string_view text, bool deviceKey, StreamLine& line) {
  Scanner s(text);
  if (!s.take('{')) return PlainReading::Unsure;
  unsigned seen = 0;
  bool named = false, idText = false;
  std::string_view action;
  do {
    std::string_view key, value;
    Key k = s.knownKey(deviceKey);
    if (k == None) {
      if (!s.text(key)) return PlainReading::Unsure;
      k = keyOf(key, deviceKey);
    }
    if (!s.take(':')) return PlainReading::Unsure;
    // Any other key, or one said twice, is a line for the general reading, which words it.
    if (k == None || (seen & k) != 0) return PlainReading::NotQuick;
    seen |= k;
    // A null stands for a key left out, wherever the line may leave it out.
    if ((k & kMayBeNull) != 0 && s.peek() == 'n') {
      if (!s.word("null")) return PlainReading::Unsure;
      continue;
    }
    switch (k) {
      case T: {
        if (s.peek() == '"') {
          if (!s.text(value)) return PlainReading::Unsure;
          line.time = readInstant(KLTValue(std::string(value)));
        } else if (int64_t millis = 0; s.integer(millis)) {
          line.time = instantOfMillis(millis);
        } else {
          return PlainReading::Unsure;
        }
        if (!line.time) return PlainReading::NotQuick;
        break;
      }
      case Type:
        if (!s.text(value)) return PlainReading::Unsure;
        line.code = eventCodeForType(value);
        if (line.code == 0) return PlainReading::NotQuick;
        break;
      case Name:
        if (!s.text(value)) return PlainReading::Unsure;
        line.name.assign(value);
        named = true;
        break;
      case Attributes:
        if (!s.flatObject(line.attributes)) return PlainReading::Unsure;
        break;
      case CustomInfo:
        line.customInfo = KLTValue::object();
        if (!s.flatObject(line.customInfo)) return PlainReading::Unsure;
        break;
      case FirstSession:
        if (s.peek() == 't' || s.peek() == 'f') {
          line.firstSession = s.peek() == 't';
          if (!s.word(line.firstSession ? "true" : "false")) return PlainReading::Unsure;
        } else {
          return PlainReading::NotQuick;  // an error, worded by the general reading
        }
        break;
      case Id:
        if (!s.text(value)) return PlainReading::NotQuick;  // an id that is no text: an error, or noted
        line.id.assign(value);
        idText = true;
        break;
      case Action:
        if (!s.text(action)) return PlainReading::Unsure;
        break;
      default:  // the fleet's device, read from the line already
        if (!s.text(value)) return PlainReading::Unsure;
        break;
    }
  } while (s.take(','));
  if (!s.take('}') || !s.atEnd()) return PlainReading::Unsure;
  if (s.pastAscii() && !klt::isValidUtf8(text)) return PlainReading::Unsure;
  const unsigned keys = seen & ~(T | Device);
  if ((seen & Type) != 0) {
    const bool whole = (keys & ~kEventKeys) == 0 && (named || line.code == kKLTEventCodePresence);
    return whole ? PlainReading::Read : PlainReading::NotQuick;
  }
  if (action == "shown" && (keys & ~kShownKeys) == 0 && idText) {
    line.kind = LineKind::Shown;
    return PlainReading::Read;
  }
  if (action == "new_session" && (keys & ~kNewSessionKeys) == 0) {
    line.kind = LineKind::NewSession;
    if (line.customInfo.is_null()) line.customInfo = KLTValue::object();
    return PlainReading::Read;
  }
  return PlainReading::NotQuick;
}

}  // namespace kltce
