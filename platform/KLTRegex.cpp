#include "platform/KLTRegex.h"

#include <unicode/uregex.h>
#include <unicode/utext.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <atomic>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

std::atomic<uint64_t> nextPatternId{1};

// Where a character that is not ASCII ends: its end in UTF-16 units and in bytes, and whether it
// took two units. Between two of these (or from the start), text is ASCII, one unit per byte.
struct WideEnd {
  int32_t unit;
  int32_t byte;
  bool pair;
};

// The calling thread's matchers, one per pattern it has used, and its scan buffer. A clone shares
// the compiled pattern (reference-counted by ICU), so it stays usable after the original goes.
struct ThreadMatchers {
  struct Entry {
    uint64_t patternId = 0;
    URegularExpression* matcher = nullptr;
  };
  std::vector<Entry> entries;
  std::u16string text;
  std::vector<WideEnd> ends;

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

// Widens the run of ASCII that starts at s[i] into units[n] (n moves along) and answers where the
// run ends: at a byte with its high bit set, or at the end. units has room for one unit per byte
// of s, so a block may be stored whole even where the run ends inside it.
int32_t widenAscii(const uint8_t* s, int32_t i, int32_t length, char16_t* units, int32_t& n) {
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  while (i + 16 <= length) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(units + n), _mm_unpacklo_epi8(bytes, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(units + n + 8), _mm_unpackhi_epi8(bytes, zero));
    if (const int high = _mm_movemask_epi8(bytes)) {
      const int ascii = __builtin_ctz(static_cast<unsigned>(high));
      n += ascii;
      return i + ascii;
    }
    i += 16;
    n += 16;
  }
#endif
  while (i < length && s[i] < 0x80) units[n++] = s[i++];
  return i;
}

// UTF-8 to UTF-16 into out, each ill-formed sequence (as U8_NEXT delimits it) becoming one U+FFFD,
// with the end of every character that is not ASCII in ends. Runs of ASCII, the bulk of most
// texts, are widened 16 bytes at a time where the build has SSE2, else byte by byte.
void toUtf16(std::string_view utf8, std::u16string& out, std::vector<WideEnd>& ends) {
  out.resize(utf8.size());  // never more UTF-16 units than UTF-8 bytes
  ends.clear();
  const auto* s = reinterpret_cast<const uint8_t*>(utf8.data());
  const auto length = static_cast<int32_t>(utf8.size());
  char16_t* units = out.data();
  int32_t i = 0;
  int32_t n = 0;
  while (i < length) {
    i = widenAscii(s, i, length, units, n);
    if (i == length) break;
    UChar32 c;
    U8_NEXT(s, i, length, c);
    if (c < 0) c = 0xFFFD;
    const bool pair = c > 0xFFFF;
    if (pair) {
      units[n++] = static_cast<char16_t>(U16_LEAD(c));
      units[n++] = static_cast<char16_t>(U16_TRAIL(c));
    } else {
      units[n++] = static_cast<char16_t>(c);
    }
    ends.push_back({n, i, pair});
  }
  out.resize(static_cast<std::size_t>(n));
}

// Turns UTF-16 positions of matches, asked for in increasing order, into byte offsets, walking
// the ends of the characters that are not ASCII once. A position inside a character (between the
// two units of a pair) is taken to its end.
class OffsetMap {
 public:
  explicit OffsetMap(const std::vector<WideEnd>& ends) : ends_(ends) {}
  std::size_t byteOffset(int32_t unit) {
    while (next_ < ends_.size() && ends_[next_].unit <= unit) base_ = ends_[next_++];
    if (next_ < ends_.size() && ends_[next_].pair && ends_[next_].unit - 1 == unit) return static_cast<std::size_t>(ends_[next_].byte);
    return static_cast<std::size_t>(base_.byte + (unit - base_.unit));
  }

 private:
  const std::vector<WideEnd>& ends_;
  std::size_t next_ = 0;
  WideEnd base_{0, 0, false};
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
  toUtf16(utf8, thread.text, thread.ends);
  UErrorCode status = U_ZERO_ERROR;
  uregex_setText(re, reinterpret_cast<const UChar*>(thread.text.data()), static_cast<int32_t>(thread.text.size()), &status);
  OffsetMap map(thread.ends);
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
