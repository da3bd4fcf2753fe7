#include "tools/kltce/input/stream_line.h"

#include <algorithm>
#include <initializer_list>

#include "host/KLTEvent.h"
#include "platform/KLTFastJson.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/plain_stream_line.h"
#include "tools/kltce/input/time_text.h"

namespace kltce {

namespace {

bool isBlank(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
}

void noteUnknownKeys(const KLTValue& object, std::initializer_list<std::string_view> known, StreamLine& line) {
  for (const auto& [key, v] : object.items()) {
    if (std::find(known.begin(), known.end(), key) == known.end()) line.notes.push_back("unknown key \"" + key + "\" ignored");
  }
}

// Reads an optional object-valued key; false (error set) when present but not an object.
// Moves the object under key (when there is one) out of the parsed line into out.
bool readObject(KLTValue& object, const char* key, KLTValue& out, std::string& error) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return true;
  if (!found->is_object()) {
    error = std::string("\"") + key + "\" must be an object";
    return false;
  }
  out = std::move(*found);
  return true;
}

LineResult fail(std::string message) { return LineResult{std::nullopt, std::move(message)}; }

LineResult parseEvent(KLTValue& object, StreamLine line) {
  const KLTValue& type = object["type"];
  if (!type.is_string()) return fail("\"type\" must be text: app, client, activity or presence");
  const std::string& word = type.get_ref<const std::string&>();
  line.code = eventCodeForType(word);
  if (line.code == 0) return fail("unknown event type \"" + word + "\" (expected app, client, activity or presence)");
  const KLTValue& name = klt::valueForKey(object, "name");
  if (name.is_string()) {
    line.name = name.get_ref<const std::string&>();
  } else if (!name.is_null() || line.code != kKLTEventCodePresence) {
    return fail("\"name\" must be text (the " + word + (line.code == kKLTEventCodeActivity ? " screen" : " event") + "'s name)");
  }
  std::string error;
  if (!readObject(object, "attributes", line.attributes, error)) return fail(error);
  noteUnknownKeys(object, {"t", "type", "name", "attributes"}, line);
  return LineResult{std::move(line), {}};
}

LineResult parseAction(KLTValue& object, StreamLine line) {
  const KLTValue& action = object["action"];
  if (!action.is_string()) return fail("\"action\" must be text");
  const std::string& word = action.get_ref<const std::string&>();
  std::string error;
  if (word == "shown") {
    const KLTValue& id = klt::valueForKey(object, "id");
    if (!id.is_string()) return fail("\"shown\" needs \"id\": the campaign's _id as text");
    line.kind = LineKind::Shown;
    line.id = id.get_ref<const std::string&>();
    noteUnknownKeys(object, {"t", "action", "id"}, line);
  } else if (word == "set_user_attributes" || word == "set_session_attributes") {
    line.kind = word == "set_user_attributes" ? LineKind::SetUserAttributes : LineKind::SetSessionAttributes;
    if (!klt::valueForKey(object, "attributes").is_object()) return fail("\"" + word + "\" needs \"attributes\": an object");
    line.attributes = object["attributes"];
    noteUnknownKeys(object, {"t", "action", "attributes"}, line);
  } else if (word == "set_user_custom_info" || word == "set_session_custom_info") {
    line.kind = word == "set_user_custom_info" ? LineKind::SetUserCustomInfo : LineKind::SetSessionCustomInfo;
    if (!klt::valueForKey(object, "custom_info").is_object()) return fail("\"" + word + "\" needs \"custom_info\": an object");
    line.customInfo = object["custom_info"];
    noteUnknownKeys(object, {"t", "action", "custom_info"}, line);
  } else if (word == "new_session") {
    line.kind = LineKind::NewSession;
    line.customInfo = KLTValue::object();
    if (!readObject(object, "attributes", line.attributes, error)) return fail(error);
    if (!readObject(object, "custom_info", line.customInfo, error)) return fail(error);
    const KLTValue& first = klt::valueForKey(object, "first_session");
    if (!first.is_null() && !first.is_boolean()) return fail("\"first_session\" must be true or false");
    line.firstSession = first.is_boolean() && first.get<bool>();
    noteUnknownKeys(object, {"t", "action", "attributes", "custom_info", "first_session"}, line);
  } else if (word == "parse") {
    line.kind = LineKind::Parse;
    const KLTValue& document = klt::valueForKey(object, "document");
    const KLTValue& file = klt::valueForKey(object, "file");
    if (!document.is_null() && !file.is_null()) return fail("\"parse\" takes \"document\" or \"file\", not both");
    if (!document.is_null()) {
      if (!document.is_object()) return fail("\"document\" must be an object with \"configs\"");
      line.document = document;
    } else if (!file.is_null()) {
      if (!file.is_string() || file.get_ref<const std::string&>().empty()) return fail("\"file\" must be a file name");
      line.file = file.get_ref<const std::string&>();
    }
    noteUnknownKeys(object, {"t", "action", "document", "file"}, line);
  } else {
    return fail("unknown action \"" + word +
                "\" (expected shown, set_user_attributes, set_session_attributes, set_user_custom_info, "
                "set_session_custom_info, new_session or parse)");
  }
  return LineResult{std::move(line), {}};
}

// Takes the members of an event line as they come; stops at anything the general reading would
// treat otherwise than taking the member (an unknown key, a repeated one, a value of a kind it refuses).
class QuickEventLine final : public klt::KLTFastJsonVisitor {
 public:
  QuickEventLine(bool deviceKey, StreamLine& into) : line(into), deviceKey_(deviceKey) {}

  bool member(std::string_view key, const klt::KLTFastJsonField& value) override {
    using Kind = klt::KLTFastJsonField::Kind;
    const Key k = key == "t" ? T : key == "type" ? Type : key == "name" ? Name : key == "attributes" ? Attributes
                  : deviceKey_ && key == "device" ? Device : None;
    if (k == None || (seen_ & k) != 0) return false;
    seen_ |= k;
    switch (k) {
      case T: {
        if (value.kind() == Kind::Null) return true;
        KLTValue t;
        if (!value.build(t)) return false;
        line.time = readInstant(t);
        return line.time.has_value();
      }
      case Type:
        line.code = value.kind() == Kind::Text ? eventCodeForType(value.text()) : 0;
        return line.code != 0;
      case Name:
        if (value.kind() == Kind::Null) return true;
        if (value.kind() != Kind::Text) return false;
        line.name = value.text();
        named_ = true;
        return true;
      case Attributes:
        if (value.kind() == Kind::Null) return true;
        return value.kind() == Kind::Object && value.build(line.attributes);
      default:
        return true;  // the fleet's device, read from the line already
    }
  }

  // Whether the members make a whole event line: a type, and a name unless a presence.
  bool whole() const { return (seen_ & Type) != 0 && (named_ || line.code == kKLTEventCodePresence); }

  StreamLine& line;

 private:
  enum Key : unsigned { None = 0, T = 1, Type = 2, Name = 4, Attributes = 8, Device = 16 };
  bool deviceKey_;
  unsigned seen_ = 0;
  bool named_ = false;
};

}  // namespace

bool readStreamLineQuickly(std::string_view text, bool deviceKey, StreamLine& line) {
  switch (readPlainLine(text, deviceKey, line)) {
    case PlainReading::Read: return true;
    case PlainReading::NotQuick: return false;
    case PlainReading::Unsure: break;
  }
  line = StreamLine{};  // the plain reading may have taken some members before it gave up
  QuickEventLine quick(deviceKey, line);
  return klt::readJsonFastObject(text, quick) && quick.whole();
}

unsigned long eventCodeForType(std::string_view type) {
  if (type == "activity") return kKLTEventCodeActivity;
  if (type == "presence") return kKLTEventCodePresence;
  if (type == "app") return kKLTEventCodeApp;
  if (type == "client") return kKLTEventCodeClient;
  return 0;
}

LineResult parseStreamLine(std::string_view text) {
  if (isBlank(text)) return {};
  LineResult quick{StreamLine{}, {}};
  if (readStreamLineQuickly(text, false, *quick.line)) return quick;
  JsonResult json = parseJson(text);
  if (!json.ok()) return fail((json.tooDeep ? "refused: " : "not valid JSON: ") + json.error);
  return streamLineFromObject(json.value);
}

LineResult streamLineFromObject(KLTValue& object) {
  if (!object.is_object()) return fail("a line must be a JSON object, not " + std::string(object.type_name()));
  StreamLine line;
  if (const KLTValue& t = klt::valueForKey(object, "t"); !t.is_null()) {
    line.time = readInstant(t);
    if (!line.time) {
      return fail("\"t\" must be an ISO 8601 time such as \"2026-11-22T09:00:00Z\" or epoch milliseconds, "
                  "of the years 0001 to 9999, not " +
                  compactJson(t));
    }
  }
  const bool hasType = object.contains("type");
  const bool hasAction = object.contains("action");
  if (hasType && hasAction) return fail("a line has \"type\" (an event) or \"action\" (a host action), not both");
  if (hasType) return parseEvent(object, std::move(line));
  if (hasAction) return parseAction(object, std::move(line));
  return fail("a line needs \"type\" (an event) or \"action\" (a host action)");
}

}  // namespace kltce
