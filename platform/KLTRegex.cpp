#include "platform/KLTRegex.h"

#include <unicode/uregex.h>
#include <unicode/ustring.h>
#include <unicode/utext.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <atomic>
#include <cstring>

namespace {

std::atomic<uint64_t> nextPatternId{1};

// The calling thread's matchers, one per pattern it has used, and its scan buffer. A clone shares
// the compiled pattern (reference-counted by ICU), so it stays usable after the original goes.
struct ThreadMatchers {
  struct Entry {
    uint64_t patternId = 0;
    URegularExpression* matcher = nullptr;
  };
  std::vector<Entry> entries;
  std::u16string text;

  ThreadMatchers() = default;
  ThreadMatchers(const ThreadMatchers&) = delete;
  ThreadMatchers& operator=(const ThreadMatchers&) = delete;
  ~ThreadMatchers() {
    for (auto& e : entries) uregex_close(e.matcher);
  }

  URegularExpression* matcherFor(uint64_t id, const URegularExpression* compiled) {
    for (auto& e : entries) {
      if (e.patternId == id) return e.matcher;
    }
    UErrorCode status = U_ZERO_ERROR;
    URegularExpression* clone = uregex_clone(compiled, &status);
    if (U_FAILURE(status)) {
      if (clone) uregex_close(clone);
      return nullptr;
    }
    entries.push_back({id, clone});
    return clone;
  }
};

ThreadMatchers& threadMatchers() {
  thread_local ThreadMatchers matchers;
  return matchers;
}

// UTF-8 to UTF-16 into out, each ill-formed sequence (as U8_NEXT delimits it) becoming one U+FFFD;
// true when there was none. Runs of ASCII, the bulk of most texts, are widened a word at a time.
bool toUtf16(std::string_view utf8, std::u16string& out) {
  out.resize(utf8.size());  // never more UTF-16 units than UTF-8 bytes
  const auto* s = reinterpret_cast<const uint8_t*>(utf8.data());
  const auto length = static_cast<int32_t>(utf8.size());
  char16_t* units = out.data();
  int32_t i = 0;
  std::size_t n = 0;
  bool wellFormed = true;
  while (i < length) {
    for (uint64_t w; i + 8 <= length; i += 8, n += 8) {
      std::memcpy(&w, s + i, 8);
      if (w & 0x8080808080808080ull) break;
      for (int k = 0; k < 8; ++k) units[n + k] = s[i + k];
    }
    if (i == length) break;
    UChar32 c;
    U8_NEXT(s, i, length, c);
    if (c < 0) {
      c = 0xFFFD;
      wellFormed = false;
    }
    if (c <= 0xFFFF) {
      units[n++] = static_cast<char16_t>(c);
    } else {
      units[n++] = static_cast<char16_t>(U16_LEAD(c));
      units[n++] = static_cast<char16_t>(U16_TRAIL(c));
    }
  }
  out.resize(n);
  return wellFormed;
}

// How many bytes of a word have their high bit set in `marks` (only high bits set): a sum of the
// eight lanes by one multiplication, where std::popcount would be a library call on processors
// the build does not assume to count bits.
int bytesMarked(uint64_t marks) { return static_cast<int>(((marks >> 7) * 0x0101010101010101ull) >> 56); }

// Walks the UTF-8 text forward in step with its UTF-16 form, so that UTF-16 positions of matches
// (found in increasing order) turn into byte offsets in one pass over the text.
class OffsetMap {
 public:
  OffsetMap(std::string_view utf8, bool wellFormed)
      : s_(reinterpret_cast<const uint8_t*>(utf8.data())), length_(static_cast<int32_t>(utf8.size())),
        wellFormed_(wellFormed) {}
  std::size_t byteOffset(int32_t unit) {
    if (wellFormed_) {
      // Well-formed: every byte but a continuation byte starts a character, of two UTF-16 units
      // when it leads four bytes. Whole words of 8 bytes are counted at once while they stay
      // short of the target; the boundary is then reached at the next lead byte (or the end).
      while (byte_ + 8 <= length_) {
        uint64_t w;
        std::memcpy(&w, s_ + byte_, 8);
        constexpr uint64_t kHigh = 0x8080808080808080ull;
        const uint64_t continuation = w & kHigh & ~(w << 1);            // 10xxxxxx
        const uint64_t fourByteLead = w & (w << 1) & (w << 2) & (w << 3) & kHigh;  // 1111xxxx
        const int units = 8 - bytesMarked(continuation) + bytesMarked(fourByteLead);
        if (unit_ + units >= unit) break;
        unit_ += units;
        byte_ += 8;
      }
      while (byte_ < length_ && (unit_ < unit || (s_[byte_] & 0xC0) == 0x80)) {
        const uint8_t b = s_[byte_++];
        unit_ += ((b & 0xC0) != 0x80) + (b >= 0xF0);
      }
      return static_cast<std::size_t>(byte_);
    }
    while (unit_ < unit && byte_ < length_) {
      UChar32 c;
      U8_NEXT(s_, byte_, length_, c);
      unit_ += (c > 0xFFFF) ? 2 : 1;
    }
    return static_cast<std::size_t>(byte_);
  }

 private:
  const uint8_t* s_;
  int32_t length_;
  bool wellFormed_;
  int32_t byte_ = 0;
  int32_t unit_ = 0;
};

}  // namespace

struct KLTRegex::Impl {
  URegularExpression* compiled = nullptr;
  uint64_t id = nextPatternId.fetch_add(1, std::memory_order_relaxed);
  ~Impl() {
    if (compiled) uregex_close(compiled);
  }
};

KLTRegex::KLTRegex(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
KLTRegex::~KLTRegex() = default;

std::unique_ptr<KLTRegex> KLTRegex::compile(std::string_view pattern, unsigned options, std::string* error) {
  UErrorCode status = U_ZERO_ERROR;
  UText* text = utext_openUTF8(nullptr, pattern.data(), static_cast<int64_t>(pattern.size()), &status);
  UParseError parseError{};
  uint32_t flags = (options & kCaseInsensitive) ? UREGEX_CASE_INSENSITIVE : 0;
  URegularExpression* re = U_SUCCESS(status) ? uregex_openUText(text, flags, &parseError, &status) : nullptr;
  utext_close(text);
  if (U_FAILURE(status) || !re) {
    if (re) uregex_close(re);
    if (error) *error = u_errorName(status);
    return nullptr;
  }
  auto impl = std::make_unique<Impl>();
  impl->compiled = re;
  return std::unique_ptr<KLTRegex>(new KLTRegex(std::move(impl)));
}

std::vector<KLTRegexMatch> KLTRegex::matches(std::string_view utf8) const {
  std::vector<KLTRegexMatch> out;
  matches(utf8, out);
  return out;
}

void KLTRegex::matches(std::string_view utf8, std::vector<KLTRegexMatch>& out) const {
  out.clear();
  if (utf8.size() > static_cast<std::size_t>(INT32_MAX)) return;  // beyond what a UTF-16 scan can index
  ThreadMatchers& thread = threadMatchers();
  URegularExpression* re = thread.matcherFor(impl_->id, impl_->compiled);
  if (!re) return;
  const bool wellFormed = toUtf16(utf8, thread.text);
  UErrorCode status = U_ZERO_ERROR;
  uregex_setText(re, reinterpret_cast<const UChar*>(thread.text.data()), static_cast<int32_t>(thread.text.size()), &status);
  OffsetMap map(utf8, wellFormed);
  while (U_SUCCESS(status) && uregex_findNext(re, &status)) {
    const int32_t start = uregex_start(re, 0, &status);
    const int32_t end = uregex_end(re, 0, &status);
    if (U_FAILURE(status) || start < 0 || end < start) break;
    const std::size_t from = map.byteOffset(start);
    const std::size_t to = map.byteOffset(end);
    out.push_back({from, to - from});
  }
  // The matcher must not keep pointing at this thread's buffer past the call (it is reused).
  status = U_ZERO_ERROR;
  uregex_setText(re, u"", 0, &status);
}
