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
  auto& controller = KLTController::sharedController();
  if (user) {
    auto u = controller.user();
    return u ? u->customInfo() : nullptr;
  }
  auto s = controller.session();
  return s ? s->customInfo() : nullptr;
}

// `text` with every occurrence of `from` (non-empty) replaced by `to`, scanning left to right
// without rescanning what was put in, written into `out`. False, with `out` unspecified, when the
// result would pass `limit` bytes.
bool replaceAllInto(std::string_view text, std::string_view from, std::string_view to, std::size_t limit,
                    std::string& out) {
  out.clear();
  std::size_t done = 0;
  for (std::size_t at = text.find(from); at != std::string_view::npos; at = text.find(from, done)) {
    if (out.size() + (at - done) + to.size() > limit) return false;
    out.append(text, done, at - done);
    out.append(to);
    done = at + from.size();
  }
  if (out.size() + (text.size() - done) > limit) return false;
  out.append(text, done, std::string_view::npos);
  return true;
}

// The calling thread's working storage, reused from call to call.
struct Scratch {
  std::vector<KLTRegexMatch> matches;
  std::string other;
};

Scratch& scratch() {
  thread_local Scratch s;
  return s;
}

}  // namespace

KLTMacroHelper::KLTMacroHelper() = default;
KLTMacroHelper::~KLTMacroHelper() = default;

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
  std::string result = input;
  if (work.matches.empty()) return result;
  const std::size_t limit = filledTextLimit(input.size());

  for (const KLTRegexMatch& match : work.matches) {
    const std::string_view placeholder = std::string_view(input).substr(match.offset, match.length);

    bool fromUser;
    std::size_t nameStart;
    if (placeholder.starts_with(kUserPrefix)) {
      fromUser = true;
      nameStart = kUserPrefix.size();
    } else if (placeholder.starts_with(kSessionPrefix)) {
      fromUser = false;
      nameStart = kSessionPrefix.size();
    } else {
      continue;  // matched only thanks to case-insensitivity, e.g. [User_name(x)]
    }

    // The pattern guarantees "(" after a non-empty name and ")" after a non-empty default; the
    // checks only keep a surprising match from reading out of bounds.
    const std::size_t open = placeholder.find('(', nameStart);
    if (open == std::string_view::npos) continue;
    const std::size_t close = placeholder.find(')', open);
    if (close == std::string_view::npos) continue;
    const std::string_view name = placeholder.substr(nameStart, open - nameStart);

    std::optional<std::string> value;
    if (auto info = customInfoFor(fromUser)) value = replacementText(klt::valueForKey(*info, name));
    const std::string_view fill = value ? std::string_view(*value) : placeholder.substr(open + 1, close - open - 1);

    // Each placeholder replaces every occurrence in the text filled so far, including those a
    // value brought in: a value holding its own placeholder doubles the text at each match, so
    // the growth is bounded.
    if (fill == placeholder) continue;  // replacing it by itself changes nothing
    if (result.find(placeholder) == std::string::npos) continue;
    if (!replaceAllInto(result, placeholder, fill, limit, work.other)) {
      std::string().swap(work.other);  // do not keep a buffer this large for the thread
      KLT_LOG_ERROR(kApplyMacroMethod, "Filled text would pass " + std::to_string(limit) +
                                           " bytes; a custom info value repeats a placeholder");
      return std::nullopt;
    }
    result.swap(work.other);
  }
  return result;
}
