// KLTRegex: a compiled regular expression over ICU, matched against UTF-8 text.
//
// Classes such as \w and \s are Unicode classes. Match positions are byte offsets into the UTF-8
// text that was searched, so they can be used on std::string directly. Invalid UTF-8 in the text
// never reads past its end: ill-formed bytes match nothing but themselves as U+FFFD would.
//
// Thread-safety: a compiled KLTRegex is immutable; matches() may be called from several threads
// at once (each call works on its own clone of the compiled pattern).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct KLTRegexMatch {
  std::size_t offset = 0;  // in bytes
  std::size_t length = 0;  // in bytes
};

class KLTRegex {
 public:
  enum Options : unsigned { kNone = 0, kCaseInsensitive = 1u << 0 };

  // Compiles the pattern; nullptr with a message in *error when it does not compile.
  static std::unique_ptr<KLTRegex> compile(std::string_view pattern, unsigned options, std::string* error = nullptr);

  KLTRegex(const KLTRegex&) = delete;
  KLTRegex& operator=(const KLTRegex&) = delete;
  ~KLTRegex();

  // Every non-overlapping match in the text, first to last.
  std::vector<KLTRegexMatch> matches(std::string_view utf8) const;

 private:
  struct Impl;
  explicit KLTRegex(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};
