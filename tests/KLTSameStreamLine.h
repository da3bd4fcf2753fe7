// sameStreamLine: whether two readings of an event-stream line are the very same line: every field,
// trees compared as sameTree does (kinds and key order included).
#pragma once

#include "testsupport/KLTSameTree.h"
#include "tools/kltce/input/stream_line.h"

namespace kltfixture {

inline bool sameStreamLine(const kltce::StreamLine& a, const kltce::StreamLine& b) {
  const bool sameDocument = a.document.has_value() == b.document.has_value() &&
                            (!a.document || sameTree(*a.document, *b.document));
  return a.kind == b.kind && a.time == b.time && a.code == b.code && a.name == b.name &&
         sameTree(a.attributes, b.attributes) && a.id == b.id && sameTree(a.customInfo, b.customInfo) &&
         a.firstSession == b.firstSession && sameDocument && a.file == b.file && a.notes == b.notes;
}

}  // namespace kltfixture
