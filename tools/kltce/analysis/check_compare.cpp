#include "tools/kltce/analysis/check_compare.h"

#include <memory>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTLog.h"
#include "platform/KLTVirtualClock.h"
#include "tools/kltce/analysis/analysis.h"
#include "tools/kltce/analysis/document_diff.h"
#include "tools/kltce/input/json_text.h"

namespace kltce {

namespace {

class DroppedLog final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
  void writeLine(KLTLogLevel, std::string_view, std::string_view, int) override {}
  void flush() override {}
};

// The engine's log dropped and, with a moment given, its clock there, while the check runs.
class CheckScope {
 public:
  explicit CheckScope(std::optional<KLTTimePoint> at) : log_(KLTLog::setSink(std::make_shared<DroppedLog>())) {
    if (at) clock_ = KLTClock::setCurrent(std::make_shared<KLTVirtualClock>(*at));
  }
  ~CheckScope() {
    if (clock_) KLTClock::setCurrent(clock_);
    KLTLog::setSink(log_);
  }
  CheckScope(const CheckScope&) = delete;
  CheckScope& operator=(const CheckScope&) = delete;

 private:
  std::shared_ptr<KLTLogSink> log_;
  std::shared_ptr<KLTClock> clock_;
};

bool isDocument(const KLTValue& document) {
  const KLTValue& configs = klt::valueForKey(document, "configs");
  return document.is_object() && (configs.is_null() || configs.is_array());
}

struct Compared {
  CampaignDiff diff;
  std::optional<KLTCEAdmission> before, after;  // nothing: not in that document
  bool admissionChanged() const { return before && after && before->admitted != after->admitted; }
};

std::string admissionText(const KLTCEAdmission& a) {
  if (a.admitted) return "admitted";
  const std::string* step = klt::stringPtr(klt::valueForKey(a.reason, "step"));
  const std::string* message = klt::stringPtr(klt::valueForKey(a.reason, "message"));
  return "rejected (" + (step ? *step : std::string("unknown")) + (message ? ": " + *message : std::string()) + ")";
}

KLTValue admissionJson(const std::optional<KLTCEAdmission>& a) {
  if (!a) return nullptr;
  KLTValue out = {{"admitted", a->admitted}};
  if (!a->admitted) out["reason"] = a->reason;
  return out;
}

std::string valueText(const std::optional<KLTValue>& v) {
  if (!v) return "(absent)";
  return v->is_null() ? "null" : shownValue(*v);
}

std::string indexText(const std::optional<std::size_t>& i) { return "configs[" + std::to_string(*i) + "]"; }

void writeText(const std::vector<Compared>& campaigns, std::ostream& out) {
  std::size_t counts[4] = {0, 0, 0, 0}, admissionChanges = 0;
  for (const Compared& c : campaigns) {
    ++counts[static_cast<int>(c.diff.status)];
    admissionChanges += c.admissionChanged();
    out << c.diff.id << ": " << campaignStatusName(c.diff.status);
    switch (c.diff.status) {
      case CampaignStatus::Added:
        out << " as " << indexText(c.diff.newIndex) << "; " << admissionText(*c.after) << '\n';
        break;
      case CampaignStatus::Removed:
        out << " from " << indexText(c.diff.oldIndex) << "; was " << admissionText(*c.before) << '\n';
        break;
      case CampaignStatus::Edited:
      case CampaignStatus::Unchanged:
        if (c.diff.oldIndex != c.diff.newIndex) out << ", moved from " << indexText(c.diff.oldIndex) << " to " << indexText(c.diff.newIndex);
        out << "; " << (c.admissionChanged() ? admissionText(*c.before) + " -> " + admissionText(*c.after)
                                             : admissionText(*c.after) + " as before")
            << '\n';
        for (const ValueChange& v : c.diff.changes) {
          out << "  " << v.path << ": " << valueText(v.before) << " -> " << valueText(v.after) << '\n';
        }
        break;
    }
  }
  out << campaigns.size() << (campaigns.size() == 1 ? " campaign: " : " campaigns: ") << counts[0] << " added, "
      << counts[1] << " removed, " << counts[2] << " edited, " << counts[3] << " unchanged; admission on this profile changed for "
      << admissionChanges << '\n';
}

void writeJson(const std::vector<Compared>& campaigns, std::ostream& out) {
  KLTValue report = KLTValue::object();
  report["campaigns"] = KLTValue::array();
  std::size_t counts[4] = {0, 0, 0, 0}, admissionChanges = 0;
  for (const Compared& c : campaigns) {
    ++counts[static_cast<int>(c.diff.status)];
    admissionChanges += c.admissionChanged();
    KLTValue changes = KLTValue::array();
    for (const ValueChange& v : c.diff.changes) {
      KLTValue change = {{"path", v.path}};
      if (v.before) change["old"] = *v.before;
      if (v.after) change["new"] = *v.after;
      changes.push_back(std::move(change));
    }
    const auto index = [](const std::optional<std::size_t>& i) { return i ? KLTValue(*i) : KLTValue(); };
    report["campaigns"].push_back({{"id", c.diff.id},
                                   {"status", campaignStatusName(c.diff.status)},
                                   {"old_index", index(c.diff.oldIndex)},
                                   {"new_index", index(c.diff.newIndex)},
                                   {"old_admission", admissionJson(c.before)},
                                   {"new_admission", admissionJson(c.after)},
                                   {"admission_changed", c.admissionChanged()},
                                   {"changes", std::move(changes)}});
  }
  report["added"] = counts[0];
  report["removed"] = counts[1];
  report["edited"] = counts[2];
  report["unchanged"] = counts[3];
  report["admission_changed"] = admissionChanges;
  out << compactJson(report) << '\n';
}

}  // namespace

int runCheckCompare(const CheckOptions& options, const KLTValue& before, std::ostream& out, std::ostream& err) {
  const KLTValue& after = options.document;
  for (const auto& [which, document] : {std::pair{"--compare", &before}, std::pair{"--document", &after}}) {
    if (!isDocument(*document)) {
      err << "kltce: check: " << which << ": not a campaign document (a JSON object with a \"configs\" list)\n";
      return 2;
    }
  }
  applyProfile(options.profile);
  std::vector<Compared> campaigns;
  {
    CheckScope scope(options.at);
    const auto& evaluator = KLTContextEvaluator::sharedInstance();
    for (CampaignDiff& d : diffDocuments(before, after)) {
      Compared c;
      if (d.oldIndex) c.before = evaluator.admissionOfConfiguration(before["configs"][*d.oldIndex]);
      if (d.newIndex) c.after = evaluator.admissionOfConfiguration(after["configs"][*d.newIndex]);
      c.diff = std::move(d);
      campaigns.push_back(std::move(c));
    }
  }
  if (options.json) {
    writeJson(campaigns, out);
  } else {
    writeText(campaigns, out);
  }
  return 0;
}

}  // namespace kltce
