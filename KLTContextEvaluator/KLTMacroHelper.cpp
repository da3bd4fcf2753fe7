#include "KLTContextEvaluator/KLTMacroHelper.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTLog.h"
#include "platform/KLTRegex.h"

namespace {

constexpr const char* kApplyMacroMethod = "-[KLTMacroHelper applyMacro:]";

// Case-insensitive with Unicode \w and \s; a placeholder's default must be non-empty.
constexpr std::string_view kPlaceholderPattern = R"(\[(session|user)_[\w\s]+\([\w\s]+\)\])";

constexpr std::string_view kUserPrefix = "[user_";
constexpr std::string_view kSessionPrefix = "[session_";

// The text a custom-info value fills a placeholder with; nothing when the default is to be used.
std::optional<std::string> replacementText(const KLTValue& value) {
  if (const std::string* s = klt::stringPtr(value)) return *s;
  if (klt::isNumber(value) || klt::isDate(value)) return klt::textForm(value);
  return std::nullopt;
}

// The custom info of the host's current user or session, asked for now: the host may switch either
// between two placeholders of one text.
std::shared_ptr<const KLTValue> customInfoFor(bool user) {
  auto& controller = KLTController::current();
  if (user) {
    auto u = controller.user();
    return u ? u->customInfo() : nullptr;
  }
  auto s = controller.session();
  return s ? s->customInfo() : nullptr;
}

// A placeholder text of the input: what fills it (none: it stays as written) and the bytes its turn adds.
struct Placeholder {
  std::string_view text;
  std::optional<std::string> fill;
  std::ptrdiff_t growth = 0;
};

struct Found {  // a match of the input and its entry in the placeholders
  std::size_t offset, length, placeholder;
};

// The calling thread's working storage, reused from call to call.
struct Scratch {
  std::vector<KLTRegexMatch> matches;
  std::vector<Placeholder> placeholders;  // each text once, in order of first appearance
  std::vector<Found> found;               // the matches, in order
  std::string other;
};

Scratch& scratch() {
  thread_local Scratch s;
  return s;
}

// Where the text of a placeholder of the input first stands in `text`, npos where none does (a
// placeholder that fills itself is counted too: it only sends the rare text holding it the longer way).
std::size_t firstStanding(std::string_view text, const std::vector<Placeholder>& placeholders) {
  for (std::size_t at = text.find('['); at != std::string_view::npos; at = text.find('[', at + 1)) {
    const std::string_view rest = text.substr(at);
    if (!rest.starts_with(kUserPrefix) && !rest.starts_with(kSessionPrefix)) continue;
    for (const Placeholder& p : placeholders) {
      if (rest.starts_with(p.text)) return at;
    }
  }
  return std::string_view::npos;
}

std::optional<std::string> fillFor(std::string_view placeholder);
std::string fillEveryMatch(std::string_view input, const Scratch& work, std::size_t size);
bool replaceAllInto(std::string_view text, std::string_view from, std::string_view to, std::size_t limit, std::string& out);
bool passes(std::size_t size, std::size_t limit);
}  // namespace

KLTMacroHelper::KLTMacroHelper() = default;
KLTMacroHelper::~KLTMacroHelper() = default;

std::optional<std::string> KLTMacroHelper::applyMacro(const KLTValue& text) const {
  if (!KLTUtilities::isNonEmptyString(text)) {
    KLT_LOG_ERROR(kApplyMacroMethod, "Invalid string!");
    return std::nullopt;
  }
  const std::string& input = *klt::stringPtr(text);

  const KLTRegex* pattern = placeholderPattern();
  if (!pattern) {
    KLT_LOG_ERROR(kApplyMacroMethod, "Error while creating regex");
    return std::nullopt;
  }

  Scratch& work = scratch();
  // Matches come from the input as passed in, never from the partly filled result, so a filled-in
  // value is not itself searched for placeholders.
  pattern->matches(input, work.matches);
  if (work.matches.empty()) return input;
  const std::size_t limit = filledTextLimit(input.size());

  // Each placeholder text is looked up once, at its first match: the host's user and session are
  // asked for afresh at each.
  work.placeholders.clear();
  work.found.clear();
  for (const KLTRegexMatch& match : work.matches) {
    const std::string_view written = std::string_view(input).substr(match.offset, match.length);
    auto it = std::find_if(work.placeholders.begin(), work.placeholders.end(), [&](const Placeholder& p) { return p.text == written; });
    if (it == work.placeholders.end()) it = work.placeholders.insert(it, Placeholder{written, fillFor(written)});
    if (it->fill) it->growth += static_cast<std::ptrdiff_t>(it->fill->size()) - static_cast<std::ptrdiff_t>(written.size());
    work.found.push_back({match.offset, match.length, static_cast<std::size_t>(it - work.placeholders.begin())});
  }

  // Each placeholder, in order, replaces every occurrence of its text in the text filled so far.
  // Where no placeholder text stands again in the outcome (brought in by a value, or formed around
  // one), that comes to filling every match where it stands, in one pass over the input, and each
  // placeholder's turn changes the size by its growth; otherwise the turns are taken one after
  // the other, as written. Either way no turn may pass the limit.
  std::ptrdiff_t size = static_cast<std::ptrdiff_t>(input.size());
  std::ptrdiff_t largest = size;
  for (const Placeholder& p : work.placeholders) {
    size += p.growth;
    largest = std::max(largest, size);
  }
  if (!passes(static_cast<std::size_t>(largest), limit)) {
    std::string filled = fillEveryMatch(input, work, static_cast<std::size_t>(size));
    if (firstStanding(filled, work.placeholders) == std::string_view::npos) return filled;
  }

  // Turn by turn: a value may bring in, or complete, a placeholder a later turn fills.
  std::string result = input;
  for (const Found& f : work.found) {
    const Placeholder& p = work.placeholders[f.placeholder];
    if (!p.fill || result.find(p.text) == std::string::npos) continue;
    if (!replaceAllInto(result, p.text, *p.fill, limit, work.other)) {
      std::string().swap(work.other);  // do not keep a buffer this large for the thread
      KLT_LOG_ERROR(kApplyMacroMethod, "Filled text would pass " + std::to_string(limit) +
                                           " bytes; a custom info value repeats a placeholder");
      return std::nullopt;
    }
    result.swap(work.other);
  }
  return result;
}

// Below applyMacro(), so that its log sites keep their source lines.
const KLTRegex* KLTMacroHelper::placeholderPattern() const {
  // Compiling costs far more than a typical substitution, so it is done once and shared; a failed
  // compilation is not retried (the pattern is fixed, so it would fail again).
  std::call_once(compileOnce_, [this] { pattern_ = KLTRegex::compile(kPlaceholderPattern, KLTRegex::kCaseInsensitive); });
  return pattern_.get();
}

std::size_t KLTMacroHelper::filledTextLimit(std::size_t inputSize) {
  std::size_t scaled = 0;
  return __builtin_mul_overflow(inputSize, kFilledTextGrowth, &scaled) ? SIZE_MAX : std::max(scaled, kFilledTextFloor);
}

namespace {

// What fills a placeholder: the custom info's value, else its default; nothing when it is written
// with another letter case (matched thanks to case-insensitivity, e.g. [User_name(x)]) or when it
// would be replaced by itself.
std::optional<std::string> fillFor(std::string_view placeholder) {
  bool fromUser;
  std::size_t nameStart;
  if (placeholder.starts_with(kUserPrefix)) {
    fromUser = true;
    nameStart = kUserPrefix.size();
  } else if (placeholder.starts_with(kSessionPrefix)) {
    fromUser = false;
    nameStart = kSessionPrefix.size();
  } else {
    return std::nullopt;
  }
  // The pattern guarantees "(" after a non-empty name and ")" after a non-empty default; the
  // checks only keep a surprising match from reading out of bounds.
  const std::size_t open = placeholder.find('(', nameStart);
  if (open == std::string_view::npos) return std::nullopt;
  const std::size_t close = placeholder.find(')', open);
  if (close == std::string_view::npos) return std::nullopt;
  const std::string_view name = placeholder.substr(nameStart, open - nameStart);

  std::optional<std::string> value;
  if (auto info = customInfoFor(fromUser)) value = replacementText(klt::valueForKey(*info, name));
  if (!value) value = std::string(placeholder.substr(open + 1, close - open - 1));
  if (*value == placeholder) return std::nullopt;
  return value;
}

// The input with every match replaced by its placeholder's fill (or left as written), `size` bytes.
std::string fillEveryMatch(std::string_view input, const Scratch& work, std::size_t size) {
  std::string result;
  result.reserve(size);
  std::size_t done = 0;
  for (const Found& f : work.found) {
    const Placeholder& p = work.placeholders[f.placeholder];
    result.append(input, done, f.offset - done);
    result.append(p.fill ? std::string_view(*p.fill) : p.text);
    done = f.offset + f.length;
  }
  result.append(input, done, std::string::npos);
  return result;
}

// `text` with every occurrence of `from` (non-empty) replaced by `to`, scanning left to right
// without rescanning what was put in, written into `out`. False, with `out` unspecified, when the
// result would pass `limit` bytes.

bool replaceAllInto(std::string_view text, std::string_view from, std::string_view to, std::size_t limit,
                    std::string& out) {
  out.clear();
  std::size_t done = 0;
  for (std::size_t at = text.find(from); at != std::string_view::npos; at = text.find(from, done)) {
    if (passes(out.size() + (at - done) + to.size(), limit)) return false;
    out.append(text, done, at - done);
    out.append(to);
    done = at + from.size();
  }
  if (passes(out.size() + (text.size() - done), limit)) return false;
  out.append(text, done, std::string_view::npos);
  return true;
}

// Whether a filled text of `size` bytes passes `limit`.
bool passes(std::size_t size, std::size_t limit) { return size > limit; }

}  // namespace
