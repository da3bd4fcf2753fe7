#include "platform/KLTValueReader.h"

#include <exception>
#include <optional>

#include "platform/KLTFastJson.h"

namespace klt {

namespace {

using Dom = nlohmann::detail::json_sax_dom_parser<KLTValue>;

// Builds the tree through the JSON library's own builder, and stops the parse (the parser then
// returns at once) the moment a list or dictionary would open one level past the limit. Both the
// text parser and this builder work without recursion; the CBOR reader recurses once per level, so
// stopping there also bounds its stack.
class DepthLimitedBuilder {
 public:
  explicit DepthLimitedBuilder(KLTValue& root) : dom_(root, false) {}

  bool null() { return dom_.null(); }
  bool boolean(bool v) { return dom_.boolean(v); }
  bool number_integer(KLTValue::number_integer_t v) { return dom_.number_integer(v); }
  bool number_unsigned(KLTValue::number_unsigned_t v) { return dom_.number_unsigned(v); }
  bool number_float(KLTValue::number_float_t v, const std::string& s) { return dom_.number_float(v, s); }
  bool string(std::string& v) { return dom_.string(v); }
  bool binary(KLTValue::binary_t& v) { return dom_.binary(v); }
  bool key(std::string& v) { return dom_.key(v); }
  bool start_object(std::size_t n) { return open() && dom_.start_object(n); }
  bool start_array(std::size_t n) { return open() && dom_.start_array(n); }
  bool end_object() { return close() && dom_.end_object(); }
  bool end_array() { return close() && dom_.end_array(); }
  template <class Exception>
  bool parse_error(std::size_t, const std::string&, const Exception& e) {
    if (!error_) error_ = e.what();
    return false;
  }

  bool tooDeep() const { return tooDeep_; }
  const std::optional<std::string>& error() const { return error_; }

 private:
  bool open() {
    if (depth_ == kKLTMaxValueDepth) {
      tooDeep_ = true;
      return false;
    }
    ++depth_;
    return true;
  }
  bool close() {
    --depth_;
    return true;
  }

  Dom dom_;
  std::size_t depth_ = 0;
  bool tooDeep_ = false;
  std::optional<std::string> error_;
};

// Drops the library's "[json.exception.parse_error.101] " tag from its message.
std::string withoutTag(std::string what) {
  if (auto pos = what.find("] "); what.rfind("[json.exception", 0) == 0 && pos != std::string::npos) {
    what.erase(0, pos + 2);
  }
  return what;
}

// Line and column (both from 1) of the bracket that opens level kKLTMaxValueDepth + 1. The parser
// accepted everything before it, so brackets inside strings are the only ones to skip.
std::string depthPosition(std::string_view text) {
  std::size_t depth = 0, line = 1, column = 0;
  bool inString = false, escaped = false;
  for (const char c : text) {
    ++column;
    if (c == '\n') {
      ++line;
      column = 0;
    }
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kKLTMaxValueDepth) break;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return "at line " + std::to_string(line) + ", column " + std::to_string(column);
}

std::string depthMessage() { return "nested deeper than " + std::to_string(kKLTMaxValueDepth) + " levels"; }

}  // namespace

KLTValueRead readJsonText(std::string_view text) {
  if (auto fast = readJsonFast(text)) return KLTValueRead{std::move(*fast), {}};
  return readJsonTextByLibrary(text);
}

KLTValueRead readJsonTextByLibrary(std::string_view text) {
  KLTValueRead r;
  // The library may still throw on resource limits (a string longer than it can hold); nothing
  // leaves this function.
  try {
    DepthLimitedBuilder builder(r.value);
    const bool ok = KLTValue::sax_parse(text.begin(), text.end(), &builder);
    if (builder.tooDeep()) {
      r.tooDeep = true;
      r.error = depthMessage() + " " + depthPosition(text);
    } else if (!ok || builder.error()) {
      r.error = builder.error() ? withoutTag(*builder.error()) : "not valid JSON";
    }
  } catch (const std::exception& e) {
    r.error = withoutTag(e.what());
  }
  if (!r.ok()) r.value = nullptr;
  return r;
}

KLTValueRead readCbor(std::string_view bytes) {
  KLTValueRead r;
  try {
    DepthLimitedBuilder builder(r.value);
    auto input = nlohmann::detail::input_adapter(bytes.begin(), bytes.end());
    nlohmann::detail::binary_reader<KLTValue, decltype(input), DepthLimitedBuilder> reader(
        std::move(input), nlohmann::detail::input_format_t::cbor);
    const bool ok = reader.sax_parse(nlohmann::detail::input_format_t::cbor, &builder, true,
                                     nlohmann::detail::cbor_tag_handler_t::store);
    if (builder.tooDeep()) {
      r.tooDeep = true;
      r.error = depthMessage();
    } else if (!ok || builder.error()) {
      r.error = builder.error() ? withoutTag(*builder.error()) : "not a valid stored value";
    }
  } catch (const std::exception& e) {
    r.error = withoutTag(e.what());
  }
  if (!r.ok()) r.value = nullptr;
  return r;
}

}  // namespace klt
