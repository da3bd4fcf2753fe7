#include "platform/KLTFastJson.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <simdjson.h>

#include "platform/KLTValueReader.h"

namespace klt {

namespace {

// The reader and a padded copy of the text: the reader looks a little past the text's end.
struct ThreadReader {
  simdjson::dom::parser parser;
  std::unique_ptr<char[]> buffer{new char[kKLTFastJsonLimit + simdjson::SIMDJSON_PADDING]};
};

class Builder {
 public:
  explicit Builder(std::string_view text) : text_(text) {}

  // False when the tree would not be the library's (see the header); out is then unusable.
  bool build(simdjson::dom::element e, KLTValue& out, std::size_t depth) {
    using Type = simdjson::dom::element_type;
    switch (e.type()) {
      case Type::ARRAY: {
        if (depth == kKLTMaxValueDepth) return false;
        const simdjson::dom::array items(e);
        out = KLTValue::array();
        out.get_ptr<KLTValue::array_t*>()->reserve(items.size());
        for (simdjson::dom::element child : items) {
          KLTValue& slot = out.emplace_back();
          if (!build(child, slot, depth + 1)) return false;
        }
        return true;
      }
      case Type::OBJECT: {
        if (depth == kKLTMaxValueDepth) return false;
        const simdjson::dom::object members(e);
        if (!out.is_object()) out = KLTValue::object();  // an object given to fill keeps its memory
        auto& fields = *out.get_ptr<KLTValue::object_t*>();
        fields.clear();
        fields.reserve(members.size());
        // A large object's keys are looked up in an index: a search through the fields for each
        // key would cost the square of their number.
        std::unordered_map<std::string_view, std::size_t> index;
        const bool indexed = members.size() > kIndexFrom;
        for (simdjson::dom::key_value_pair field : members) {
          KLTValue child;
          if (!build(field.value, child, depth + 1)) return false;
          // As the library's builder does: a repeated key keeps its first place, takes the last value.
          if (indexed) {
            if (const auto [it, added] = index.try_emplace(field.key, fields.size()); !added) {
              (fields.begin() + static_cast<std::ptrdiff_t>(it->second))->second = std::move(child);
              continue;
            }
          } else if (auto it = fields.find(field.key); it != fields.end()) {
            it->second = std::move(child);
            continue;
          }
          fields.emplace_back(std::string(field.key), std::move(child));
        }
        return true;
      }
      case Type::INT64: {
        const int64_t v = int64_t(e);
        // The library reads "-0" as a signed zero and every other unsigned integer text as unsigned.
        if (v == 0 && hasMinusZero()) return false;
        out = v < 0 ? KLTValue(v) : KLTValue(static_cast<uint64_t>(v));
        return true;
      }
      case Type::UINT64:
        out = uint64_t(e);
        return true;
      case Type::DOUBLE:
        out = double(e);
        return true;
      case Type::STRING:
        out = std::string(std::string_view(e));
        return true;
      case Type::BOOL:
        out = bool(e);
        return true;
      case Type::NULL_VALUE:
        out = nullptr;
        return true;
    }
    return false;
  }

 private:
  static constexpr std::size_t kIndexFrom = 16;
  bool hasMinusZero() {
    if (!hasMinusZero_) hasMinusZero_ = text_.find("-0") != std::string_view::npos;
    return *hasMinusZero_;
  }
  std::string_view text_;
  std::optional<bool> hasMinusZero_;  // looked for once per text
};

// The thread's reading of text, or nothing when the text is not for the quick reader.
bool readSmall(std::string_view text, simdjson::dom::element& root) {
  // A \u escape may stand for half of a pair, which the two readers judge differently: the
  // library's rules decide.
  if (text.size() > kKLTFastJsonLimit || text.find("\\u") != std::string_view::npos) return false;
  thread_local ThreadReader reader;
  std::memcpy(reader.buffer.get(), text.data(), text.size());
  std::memset(reader.buffer.get() + text.size(), 0, simdjson::SIMDJSON_PADDING);
  return reader.parser.parse(reader.buffer.get(), text.size(), false).get(root) == simdjson::SUCCESS;
}

}  // namespace

std::optional<KLTValue> readJsonFast(std::string_view text) {
  try {
    simdjson::dom::element root;
    if (!readSmall(text, root)) return std::nullopt;
    KLTValue value;
    if (!Builder(text).build(root, value, 0)) return std::nullopt;
    return value;
  } catch (...) {
    return std::nullopt;
  }
}

// Hands a reading's members out as fields; a friend of the field, which hides the element.
class KLTFastJsonReading {
 public:
  static bool visit(std::string_view text, KLTFastJsonVisitor& visitor) {
    simdjson::dom::element root;
    if (!readSmall(text, root) || root.type() != simdjson::dom::element_type::OBJECT) return false;
    for (simdjson::dom::key_value_pair member : simdjson::dom::object(root)) {
      if (!visitor.member(member.key, KLTFastJsonField(&member.value, text))) return false;
    }
    return true;
  }
};

bool readJsonFastObject(std::string_view text, KLTFastJsonVisitor& visitor) {
  try {
    return KLTFastJsonReading::visit(text, visitor);
  } catch (...) {
    return false;
  }
}

bool isValidUtf8(std::string_view text) { return simdjson::validate_utf8(text.data(), text.size()); }

KLTFastJsonField::Kind KLTFastJsonField::kind() const {
  using Type = simdjson::dom::element_type;
  switch (static_cast<const simdjson::dom::element*>(element_)->type()) {
    case Type::ARRAY: return Kind::Array;
    case Type::OBJECT: return Kind::Object;
    case Type::STRING: return Kind::Text;
    case Type::BOOL: return Kind::Boolean;
    case Type::NULL_VALUE: return Kind::Null;
    default: return Kind::Number;
  }
}

std::string_view KLTFastJsonField::text() const {
  std::string_view out;
  if (static_cast<const simdjson::dom::element*>(element_)->get_string().get(out) != simdjson::SUCCESS) return {};
  return out;
}

bool KLTFastJsonField::build(KLTValue& out) const {
  try {
    // A member sits one level down in its object.
    return Builder(source_).build(*static_cast<const simdjson::dom::element*>(element_), out, 1);
  } catch (...) {
    return false;
  }
}

}  // namespace klt
