// Reading what a C host passes in: UTF-8 texts and JSON texts, each refused with the status and
// message the C interface promises (kltce.h) rather than thrown.
#pragma once

#include <string>

#include <kltce/kltce.h>

#include "platform/KLTValue.h"

namespace kltce::capi {

// A required text: KLTCE_ERROR_INVALID_ARGUMENT when NULL, KLTCE_ERROR_INVALID_UTF8 when not UTF-8.
// what names the argument in the message.
kltce_status readText(const char* text, const char* what, std::string& out);

enum class JsonKind { Object, Document };

// A JSON object (Object; NULL gives an empty object when optional) or a campaign document
// (Document: an object whose "configs", when present, is a list). Invalid UTF-8, JSON that does
// not parse or nests too deep, and JSON of another kind each give their status.
kltce_status readJson(const char* text, const char* what, JsonKind kind, bool optional, KLTValue& out);

// A copy of the text the caller frees with kltce_string_free(); nullptr when out of memory.
char* copyOut(const std::string& text);

}  // namespace kltce::capi
