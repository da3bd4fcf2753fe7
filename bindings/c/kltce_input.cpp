#include "bindings/c/kltce_input.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "bindings/c/kltce_status.h"
#include "platform/KLTFastJson.h"
#include "platform/KLTValueReader.h"

namespace kltce::capi {

kltce_status readText(const char* text, const char* what, std::string& out) {
  if (!text) return fail(KLTCE_ERROR_INVALID_ARGUMENT, std::string(what) + " is NULL");
  const std::string_view view(text);
  if (!klt::isValidUtf8(view)) return fail(KLTCE_ERROR_INVALID_UTF8, std::string(what) + " is not valid UTF-8");
  out.assign(view);
  return KLTCE_OK;
}

kltce_status readJson(const char* text, const char* what, JsonKind kind, bool optional, KLTValue& out) {
  if (!text && optional) {
    out = KLTValue::object();
    return KLTCE_OK;
  }
  if (!text) return fail(KLTCE_ERROR_INVALID_ARGUMENT, std::string(what) + " is NULL");
  const std::string_view view(text);
  if (!klt::isValidUtf8(view)) return fail(KLTCE_ERROR_INVALID_UTF8, std::string(what) + " is not valid UTF-8");
  klt::KLTValueRead read = klt::readJsonText(view);
  if (!read.ok()) return fail(KLTCE_ERROR_INVALID_JSON, std::string(what) + " is not valid JSON: " + read.error);
  if (!read.value.is_object()) {
    return fail(KLTCE_ERROR_WRONG_SHAPE,
                std::string(what) + " must be a JSON object, not " + std::string(read.value.type_name()));
  }
  if (kind == JsonKind::Document) {
    const KLTValue& configs = klt::valueForKey(read.value, kKLTConfigs);
    if (!configs.is_null() && !configs.is_array()) {
      return fail(KLTCE_ERROR_WRONG_SHAPE, std::string(what) + ": \"configs\" must be a list of campaigns, not " +
                                               std::string(configs.type_name()));
    }
  }
  out = std::move(read.value);
  return KLTCE_OK;
}

char* copyOut(const std::string& text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy) std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

}  // namespace kltce::capi

extern "C" void kltce_string_free(char* text) { std::free(text); }
