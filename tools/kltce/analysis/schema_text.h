// The campaign document's JSON Schema (schema/campaign-document.schema.json), compiled into the
// tool at build time so that `kltce check` finds it wherever the binary runs from.
#pragma once

#include <string_view>

namespace kltce {

// The schema file's text, byte for byte. Static storage; safe from any thread.
std::string_view campaignDocumentSchemaText();

}  // namespace kltce
