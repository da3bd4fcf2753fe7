// KLTRegex: a compiled regular expression over ICU, matched against UTF-8 text.
//
// Classes such as \w and \s are Unicode classes. Match positions are byte offsets into the UTF-8
// text that was searched, so they can be used on std::string directly. Ill-formed UTF-8 never
// reads past the text's end: each ill-formed sequence is scanned as one U+FFFD, which no \w, \s or
// literal of a pattern matches, and the positions around it stay byte offsets.
//
// Thread-safety: a compiled KLTRegex is immutable; matches() may be called from several threads
// at once. Each thread keeps one matcher per pattern and reuses it (a clone of the compiled
// pattern sharing its tables), with its UTF-16 buffer: a call copies the text once, to UTF-16,
// which is what the matcher scans.
#pragma once

#include <cstddef>
#include <cstdint>
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
  // The same, into `out` (cleared first), whose storage a caller can reuse from call to call.
  void matches(std::string_view utf8, std::vector<KLTRegexMatch>& out) const;

 private:
  struct Impl;
  explicit KLTRegex(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};
