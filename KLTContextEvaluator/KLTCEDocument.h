// KLTCEDocument: a campaign document read once for any number of parses: its configurations in the
// order a parse takes them (highest `prio` first, equal priorities in document order), each with
// its compiled campaign (KLTCECampaign.h). What admits a configuration depends on the device, so
// every parse still admits each one; what it compiles to does not, so that is done here, once.
//
// Immutable once made: shared read-only by any number of engines and threads (a fleet compiles its
// document once for every device). A document that is not a dictionary, or whose "configs" is not
// a list, has no configurations, as a parse reads it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "KLTContextEvaluator/KLTCECampaign.h"
#include "platform/KLTValue.h"

class KLTCEDocument {
 public:
  struct Entry {
    const KLTValue* config;  // within the document, which this object keeps
    int64_t priority;
    // nullptr for a configuration without a text _id (no item is built from it).
    std::shared_ptr<const KLTCECampaign> campaign;
  };

  // Reads the document; nullptr reads as an empty one.
  static std::shared_ptr<const KLTCEDocument> compile(std::shared_ptr<const KLTValue> document);

  const std::vector<Entry>& entries() const { return entries_; }
  const std::shared_ptr<const KLTValue>& json() const { return json_; }

 private:
  std::shared_ptr<const KLTValue> json_;
  std::vector<Entry> entries_;
};
