#include "tools/kltce/analysis/schema_check.h"

#include <algorithm>
#include <exception>
#include <map>
#include <set>
#include <string_view>

#include <nlohmann/json.hpp>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include "tools/kltce/analysis/analysis.h"
#include "tools/kltce/analysis/schema_text.h"

namespace kltce {

namespace {

// The validator's adapter reads nlohmann::json, not the ordered variant the engine uses.
using PlainJson = nlohmann::json;

struct CompiledSchema {
  PlainJson text;  // the schema as JSON, also read to word messages (types, words, forms)
  valijson::Schema schema;
  std::string error;  // non-empty when the compiled-in schema could not be read (a build fault)

  CompiledSchema() {
    try {
      text = PlainJson::parse(campaignDocumentSchemaText());
      valijson::SchemaParser parser(valijson::SchemaParser::kDraft7);
      valijson::adapters::NlohmannJsonAdapter adapter(text);
      parser.populateSchema(adapter, schema);
    } catch (const std::exception& e) {
      error = e.what();
    }
  }
};

const CompiledSchema& compiled() {
  static const CompiledSchema instance;
  return instance;
}

std::string shown(const KLTValue& v) { return shownValue(v); }

// The validator matches patterns with std::regex, whose matcher recurses once per character: a
// text of some hundred kilobytes overflows the stack. Every text the schema gives a pattern is
// short, so a long text is replaced, in the copy validated, by one that still is text and fails
// every pattern (a date with a fraction of over 200 digits is then reported as not a date).
void shortenLongTexts(PlainJson& root) {
  constexpr std::size_t kLongest = 256;
  std::vector<PlainJson*> pending{&root};
  while (!pending.empty()) {
    PlainJson* v = pending.back();
    pending.pop_back();
    if (v->is_string() && v->get_ref<const std::string&>().size() > kLongest) {
      *v = "(a text of " + std::to_string(v->get_ref<const std::string&>().size()) + " bytes)";
    } else if (v->is_structured()) {
      for (auto& item : *v) pending.push_back(&item);
    }
  }
}

std::string unescapeSegment(std::string_view s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '~' && i + 1 < s.size() && (s[i + 1] == '0' || s[i + 1] == '1')) {
      out += s[i + 1] == '0' ? '~' : '/';
      ++i;
    } else {
      out += s[i];
    }
  }
  return out;
}

std::vector<std::string> segmentsOf(const std::string& pointer) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at < pointer.size() && pointer[at] == '/') {
    const std::size_t next = pointer.find('/', at + 1);
    out.push_back(unescapeSegment(std::string_view(pointer).substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1)));
    if (next == std::string::npos) break;
    at = next;
  }
  return out;
}

// valijson's context ["<root>", "[configs]", "[0]", "[prio]"] as a JSON Pointer.
std::string pointerOf(const std::vector<std::string>& context) {
  std::string out;
  for (const auto& part : context) {
    if (part.size() >= 2 && part.front() == '[' && part.back() == ']') out += "/" + pointerSegment(part.substr(1, part.size() - 2));
  }
  return out;
}

// Follows one "$ref": "#/definitions/name".
const PlainJson& resolveRef(const PlainJson& root, const PlainJson& schema) {
  const auto ref = schema.find("$ref");
  if (ref == schema.end() || !ref->is_string()) return schema;
  const std::string& text = ref->get_ref<const std::string&>();
  const std::string prefix = "#/definitions/";
  if (text.rfind(prefix, 0) != 0) return schema;
  const auto& defs = root.at("definitions");
  const auto it = defs.find(text.substr(prefix.size()));
  return it == defs.end() ? schema : resolveRef(root, *it);
}

// The subschema that describes the value at `segments` (following properties, items,
// additionalProperties and $ref); nullptr where the schema says nothing.
const PlainJson* subschemaAt(const PlainJson& root, const std::vector<std::string>& segments) {
  const PlainJson* at = &resolveRef(root, root);
  for (const auto& seg : segments) {
    const PlainJson* next = nullptr;
    if (auto props = at->find("properties"); props != at->end() && props->contains(seg)) next = &(*props)[seg];
    else if (auto items = at->find("items"); items != at->end() && items->is_object()) next = &*items;
    else if (auto extra = at->find("additionalProperties"); extra != at->end() && extra->is_object()) next = &*extra;
    if (!next) return nullptr;
    at = &resolveRef(root, *next);
  }
  return at;
}

const char* typeWords(const std::string& type) {
  if (type == "integer") return "an integer";
  if (type == "number") return "a number";
  if (type == "string") return "text";
  if (type == "boolean") return "true or false";
  if (type == "array") return "a list";
  if (type == "object") return "an object";
  return "null";
}

bool hasType(const KLTValue& v, const std::string& type) {
  if (type == "integer") return v.is_number_integer() || (v.is_number_float() && v.get<double>() == static_cast<double>(static_cast<int64_t>(v.get<double>())));
  if (type == "number") return v.is_number();
  if (type == "string") return v.is_string();
  if (type == "boolean") return v.is_boolean();
  if (type == "array") return v.is_array();
  if (type == "object") return v.is_object();
  return v.is_null();
}

std::string joinWords(const std::vector<std::string>& words, const char* last) {
  std::string out;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) out += i + 1 == words.size() ? last : ", ";
    out += words[i];
  }
  return out;
}

// Why `value` does not fit `schema`, in the document's terms.
std::string explain(const PlainJson* schema, const KLTValue& value, const std::string& fallback) {
  if (!schema) return fallback;
  if (auto type = schema->find("type"); type != schema->end()) {
    std::vector<std::string> types;
    if (type->is_string()) types.push_back(*type);
    for (const auto& t : *type) if (type->is_array()) types.push_back(t);
    bool fits = false;
    std::vector<std::string> words;
    for (const auto& t : types) {
      fits = fits || hasType(value, t);
      words.emplace_back(typeWords(t));
    }
    if (!fits) return shown(value) + " is not " + joinWords(words, " or ");
  }
  if (auto words = schema->find("enum"); words != schema->end()) {
    std::vector<std::string> list;
    for (const auto& w : *words) list.push_back(w.is_string() ? w.get<std::string>() : w.dump());
    return shown(value) + " is not " + joinWords(list, " or ") + " (exact words)";
  }
  if (auto title = schema->find("title"); title != schema->end() && schema->contains("pattern")) {
    return shown(value) + " is not " + title->get<std::string>();
  }
  if (schema->contains("minLength") && value.is_string()) return "empty text";
  if (auto min = schema->find("minimum"); min != schema->end()) return shown(value) + " is below " + min->dump();
  if (auto alternatives = schema->find("oneOf"); alternatives != schema->end()) {
    std::vector<std::string> words;
    for (const auto& alt : *alternatives) words.emplace_back(typeWords(alt.value("type", "")));
    return shown(value) + " is not " + joinWords(words, " or ");
  }
  return fallback;
}

// Levenshtein distance, for "did you mean".
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string unknownKeyMessage(const PlainJson* parent, const std::string& key) {
  std::string message = "unknown key \"" + key + "\": the engine ignores it";
  if (!parent) return message;
  auto props = parent->find("properties");
  if (props == parent->end()) return message;
  std::string best;
  std::size_t bestDistance = 3;  // closer than three edits, or the same word in another case
  for (const auto& [name, sub] : props->items()) {
    std::string lower = key, known = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    std::transform(known.begin(), known.end(), known.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::size_t d = lower == known ? 0 : distance(key, name);
    if (d < bestDistance) {
      bestDistance = d;
      best = name;
    }
  }
  if (!best.empty()) message += " (did you mean \"" + best + "\"?)";
  return message;
}

// The key named in valijson's "... '<key>'." messages.
std::string quotedKey(const std::string& description) {
  const auto end = description.rfind('\'');
  const auto begin = end == std::string::npos || end == 0 ? std::string::npos : description.rfind('\'', end - 1);
  return begin == std::string::npos ? std::string() : description.substr(begin + 1, end - begin - 1);
}

// Messages valijson adds above the failure itself, which say nothing of their own.
bool isSummary(const std::string& description) {
  for (const char* prefix : {"Failed to validate item #", "Failed to validate against schema associated with property",
                             "Failed to validate against additional properties", "Failed to validate against child schema",
                             "Failed to validate against schema associated with"}) {
    if (description.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

}  // namespace

std::string pointerSegment(const std::string& key) {
  std::string out;
  for (char c : key) {
    if (c == '~') out += "~0";
    else if (c == '/') out += "~1";
    else out += c;
  }
  return out;
}

const KLTValue& valueAtPointer(const KLTValue& root, const std::string& pointer) {
  static const KLTValue kNothing;
  const KLTValue* at = &root;
  for (const auto& seg : segmentsOf(pointer)) {
    if (at->is_object()) {
      auto it = at->find(seg);
      if (it == at->end()) return kNothing;
      at = &*it;
    } else if (at->is_array() && !seg.empty() && seg.find_first_not_of("0123456789") == std::string::npos && seg.size() < 10) {
      const std::size_t i = std::stoul(seg);
      if (i >= at->size()) return kNothing;
      at = &(*at)[i];
    } else {
      return kNothing;
    }
  }
  return *at;
}

std::string dottedPath(const std::string& pointer) {
  std::string out;
  for (const auto& seg : segmentsOf(pointer)) {
    if (!seg.empty() && seg.find_first_not_of("0123456789") == std::string::npos) {
      out += "[" + seg + "]";
    } else {
      out += (out.empty() ? "" : ".") + seg;
    }
  }
  return out;
}

std::vector<SchemaViolation> validateAgainstSchema(const KLTValue& document) {
  const CompiledSchema& s = compiled();
  if (!s.error.empty()) return {{SchemaViolation::Kind::Other, "", document, "the compiled-in schema is unusable: " + s.error}};
  PlainJson target;
  try {
    target = PlainJson::parse(document.dump(-1, ' ', false, KLTValue::error_handler_t::replace));
    shortenLongTexts(target);
  } catch (const std::exception& e) {
    return {{SchemaViolation::Kind::Other, "", KLTValue(), std::string("the document cannot be validated: ") + e.what()}};
  }
  std::vector<SchemaViolation> out;
  std::set<std::string> seen;  // one violation per path
  // An object reports one unknown key per validation; each is taken out of the copy and the
  // validation repeated, so every unknown key is named (a pass per unknown key of the busiest object).
  for (bool first = true;; first = false) {
    valijson::Validator validator;
    valijson::ValidationResults results;
    valijson::adapters::NlohmannJsonAdapter adapter(target);
    if (validator.validate(s.schema, adapter, &results)) break;
    std::vector<valijson::ValidationResults::Error> errors;
    valijson::ValidationResults::Error e;
    while (results.popError(e)) errors.push_back(e);
    bool removed = false;
    for (const auto& error : errors) {
      const std::string at = pointerOf(error.context);
      const bool unknown = error.description.rfind("Object contains a property that could not be validated", 0) == 0;
      const bool missing = error.description.rfind("Missing required property", 0) == 0;
      if (unknown || missing) {
        const std::string key = quotedKey(error.description);
        const std::string path = at + "/" + pointerSegment(key);
        if (!seen.insert(path).second) continue;
        const PlainJson* parent = subschemaAt(s.text, segmentsOf(at));
        if (unknown) {
          out.push_back({SchemaViolation::Kind::UnknownKey, path, valueAtPointer(document, path), unknownKeyMessage(parent, key)});
          target[PlainJson::json_pointer(at)].erase(key);
          removed = true;
        } else {
          out.push_back({SchemaViolation::Kind::MissingKey, path, KLTValue(), "required key \"" + key + "\" is missing"});
        }
        continue;
      }
      if (!first || isSummary(error.description)) continue;
      // A failure whose path holds a deeper failure is only its summary.
      const bool deeper = std::any_of(errors.begin(), errors.end(), [&](const auto& other) {
        return other.context.size() > error.context.size() && std::equal(error.context.begin(), error.context.end(), other.context.begin()) &&
               !isSummary(other.description);
      });
      if (deeper || !seen.insert(at).second) continue;
      const KLTValue& value = valueAtPointer(document, at);
      out.push_back({SchemaViolation::Kind::Other, at, value, explain(subschemaAt(s.text, segmentsOf(at)), value, error.description)});
    }
    if (!removed) break;
  }
  return out;
}

}  // namespace kltce
