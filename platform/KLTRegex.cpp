#include "platform/KLTRegex.h"

#include <unicode/uregex.h>
#include <unicode/utext.h>

struct KLTRegex::Impl {
  URegularExpression* compiled = nullptr;
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
  UErrorCode status = U_ZERO_ERROR;
  URegularExpression* re = uregex_clone(impl_->compiled, &status);
  if (U_FAILURE(status)) return out;
  // A UTF-8 UText keeps native indexes in bytes, so match positions need no conversion.
  UText* text = utext_openUTF8(nullptr, utf8.data(), static_cast<int64_t>(utf8.size()), &status);
  uregex_setUText(re, text, &status);
  while (U_SUCCESS(status) && uregex_findNext(re, &status)) {
    const int64_t start = uregex_start64(re, 0, &status);
    const int64_t end = uregex_end64(re, 0, &status);
    if (U_FAILURE(status) || start < 0 || end < start || static_cast<std::size_t>(end) > utf8.size()) break;
    out.push_back({static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)});
  }
  uregex_close(re);
  utext_close(text);
  return out;
}
