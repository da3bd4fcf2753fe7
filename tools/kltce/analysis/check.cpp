#include "tools/kltce/analysis/check.h"

#include <algorithm>
#include <limits>
#include <map>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include <mutex>

#include "platform/KLTLog.h"
#include "platform/KLTVirtualClock.h"
#include "tools/kltce/analysis/admission_report.h"
#include "tools/kltce/analysis/schema_check.h"
#include "tools/kltce/input/json_text.h"

namespace kltce {

namespace {

constexpr std::string_view kCheckMethod = "-[KLTContextEvaluator checkConfiguration:]";

// The message part of "<KLT ERROR> message -[Class method:]:123\n".
std::string messageOf(const std::string& line) {
  std::string_view s = line;
  if (auto gt = s.find("> "); s.rfind("<KLT ", 0) == 0 && gt != std::string_view::npos) s.remove_prefix(gt + 2);
  if (auto m = s.rfind(" -["); m != std::string_view::npos) s = s.substr(0, m);
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.remove_suffix(1);
  return std::string(s);
}

std::string reasonFrom(const std::vector<std::string>& lines) {
  for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
    if (it->find(kCheckMethod) != std::string::npos) return messageOf(*it);
  }
  return lines.empty() ? "rejected without a logged reason" : messageOf(lines.back());
}

std::string idText(const CampaignVerdict& v) {
  if (const std::string* s = klt::stringPtr(v.id)) return *s;
  return "configs[" + std::to_string(v.index) + "] (no _id)";
}

// Keeps the engine's log lines of one admission check (at LOG_LEVEL 0) instead of writing them,
// and restores the previous sink and level when it goes.
class CheckLogCapture final : public KLTLogSink {
 public:
  static std::shared_ptr<CheckLogCapture> install() {
    auto capture = std::make_shared<CheckLogCapture>();
    capture->previousLevel_ = LOG_LEVEL.load();
    capture->previous_ = KLTLog::setSink(capture);
    LOG_LEVEL = 0;
    return capture;
  }
  void uninstall() {
    KLTLog::setSink(previous_);
    LOG_LEVEL = previousLevel_;
  }
  void write(std::string_view line) override {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::shared_ptr<KLTLogSink> previous_;
  long previousLevel_ = 0;
};

// Restores the process-wide clock when the check is done.
class ClockOverride {
 public:
  explicit ClockOverride(std::optional<KLTTimePoint> at) {
    if (at) {
      previous_ = KLTClock::setCurrent(std::make_shared<KLTVirtualClock>(*at));
      active_ = true;
    }
  }
  ~ClockOverride() {
    if (active_) KLTClock::setCurrent(previous_);
  }
  ClockOverride(const ClockOverride&) = delete;
  ClockOverride& operator=(const ClockOverride&) = delete;

 private:
  std::shared_ptr<KLTClock> previous_;
  bool active_ = false;
};


// Where a path lies in the document: the position of each key within its object (the document's
// own key order) or each index; a missing key sorts after its present siblings.
std::vector<std::size_t> documentOrder(const KLTValue& root, const std::string& pointer) {
  std::vector<std::size_t> order;
  const KLTValue* at = &root;
  std::string rest = pointer;
  while (!rest.empty()) {
    const std::size_t next = rest.find('/', 1);
    const std::string segment = rest.substr(1, next == std::string::npos ? std::string::npos : next - 1);
    rest = next == std::string::npos ? std::string() : rest.substr(next);
    std::size_t position = std::numeric_limits<std::size_t>::max();
    const KLTValue* child = nullptr;
    if (at->is_object()) {
      std::size_t i = 0;
      for (auto it = at->begin(); it != at->end(); ++it, ++i) {
        if (pointerSegment(it.key()) == segment) {
          position = i;
          child = &it.value();
          break;
        }
      }
    } else if (at->is_array() && !segment.empty() && segment.size() < 10 &&
               segment.find_first_not_of("0123456789") == std::string::npos) {
      position = std::stoul(segment);
      if (position < at->size()) child = &(*at)[position];
    }
    order.push_back(position);
    if (!child) break;
    at = child;
  }
  return order;
}

// Whether `inner` is `outer` or lies inside it.
bool within(const std::string& inner, const std::string& outer) {
  return inner == outer || (inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == '/');
}

void prefixPaths(std::vector<Finding>& findings, const std::string& prefix) {
  for (auto& f : findings) f.path = prefix + f.path;
}

}  // namespace

std::vector<CampaignVerdict> checkCampaigns(const KLTValue& document, std::vector<Finding>& documentFindings,
                                            bool requireAdmitted, Admission admission) {
  std::vector<CampaignVerdict> verdicts;
  const KLTValue& configs = klt::valueForKey(document, "configs");
  if (!configs.is_array()) return verdicts;
  const bool checked = admission == Admission::Checked;
  // Made before the capture, so its start-up line stays out of it.
  KLTContextEvaluator* evaluator = checked ? &KLTContextEvaluator::sharedInstance() : nullptr;
  std::map<std::string, std::size_t> firstWithId;
  for (std::size_t i = 0; i < configs.size(); ++i) {
    const KLTValue& config = configs[i];
    const std::string prefix = "/configs/" + std::to_string(i);
    CampaignVerdict v;
    v.index = i;
    v.id = klt::valueForKey(config, "_id");
    if (checked) {
      auto capture = CheckLogCapture::install();
      v.admitted = evaluator->checkConfiguration(config);
      capture->uninstall();
      if (!v.admitted) v.reason = reasonFrom(capture->lines());
    }
    v.findings = checked ? admissionFindings(config) : unconditionalAdmissionFindings(config);
    if (checked && !v.admitted && v.findings.empty()) {
      v.findings.push_back(Finding{Severity::Error, "", config, v.reason, true});
    }
    for (auto& f : analyzeCampaign(config)) v.findings.push_back(std::move(f));
    if (const std::string* id = klt::stringPtr(v.id)) {
      auto [first, fresh] = firstWithId.emplace(*id, i);
      if (!fresh) {
        v.findings.push_back(Finding{Severity::Warning, "/_id", v.id,
                                     "_id " + shownValue(v.id) + " repeats configs[" + std::to_string(first->second) +
                                         "]'s: the engine keeps both (the earlier item stays registered, and each is "
                                         "dispatched when its conditions hold) and they share one set of counters",
                                     false});
      }
    }
    prefixPaths(v.findings, prefix);
    verdicts.push_back(std::move(v));
  }
  // Schema violations not already explained by a finding at or above their path (the findings say
  // what the engine makes of the value; the schema only that it is not as written).
  for (auto& violation : validateAgainstSchema(document)) {
    std::vector<Finding>* into = &documentFindings;
    for (auto& v : verdicts) {
      if (within(violation.path, "/configs/" + std::to_string(v.index))) into = &v.findings;
    }
    const bool explained = std::any_of(into->begin(), into->end(), [&](const Finding& f) { return within(f.path, violation.path); });
    if (!explained) {
      into->push_back(Finding{Severity::Warning, violation.path, violation.value, violation.message, false});
    }
  }
  auto arrange = [&](std::vector<Finding>& findings) {
    if (requireAdmitted) {
      for (auto& f : findings) {
        if (f.rejects) f.severity = Severity::Error;
      }
    }
    std::stable_sort(findings.begin(), findings.end(), [&](const Finding& a, const Finding& b) {
      return documentOrder(document, a.path) < documentOrder(document, b.path);
    });
  };
  arrange(documentFindings);
  for (auto& v : verdicts) arrange(v.findings);
  return verdicts;
}

namespace {

KLTValue findingJson(const Finding& f) {
  return {{"severity", severityName(f.severity)}, {"path", f.path}, {"value", f.value}, {"message", f.message}, {"rejects", f.rejects}};
}

void writeFinding(std::ostream& out, const Finding& f) {
  out << "  " << severityName(f.severity) << ' ' << (f.path.empty() ? "/" : f.path) << " = " << shownValue(f.value) << ": "
      << f.message << '\n';
}

std::string counted(int n, const char* one, const char* many) { return std::to_string(n) + (n == 1 ? one : many); }

}  // namespace

int runCheck(const CheckOptions& options, std::ostream& out, std::ostream& err) {
  if (!options.document.is_object()) {
    err << "kltce: the document must be a JSON object with \"configs\"\n";
    return 2;
  }
  const KLTValue& configs = klt::valueForKey(options.document, "configs");
  if (!configs.is_null() && !configs.is_array()) {
    err << "kltce: the document's \"configs\" must be a list of campaigns\n";
    return 2;
  }
  const bool checked = options.admission == Admission::Checked;
  if (!checked && options.requireAdmitted) {
    err << "kltce: --require-admitted needs --profile: without a profile no admission is checked\n";
    return 2;
  }
  if (checked) applyProfile(options.profile);
  std::vector<CampaignVerdict> verdicts;
  std::vector<Finding> documentFindings;
  {
    ClockOverride clock(checked ? options.at : std::nullopt);
    verdicts = checkCampaigns(options.document, documentFindings, options.requireAdmitted, options.admission);
  }
  int admitted = 0, rejected = 0;
  int counts[3] = {0, 0, 0};  // by severity: info, warning, error
  for (const auto& f : documentFindings) counts[static_cast<int>(f.severity)]++;
  for (const auto& v : verdicts) {
    (v.admitted ? admitted : rejected)++;
    for (const auto& f : v.findings) counts[static_cast<int>(f.severity)]++;
  }
  const int errors = counts[2], warnings = counts[1], infos = counts[0];
  if (options.json) {
    KLTValue report = KLTValue::object();
    report["document"] = KLTValue::array();
    for (const auto& f : documentFindings) report["document"].push_back(findingJson(f));
    report["campaigns"] = KLTValue::array();
    for (const auto& v : verdicts) {
      KLTValue c = KLTValue::object();
      c["index"] = v.index;
      c["id"] = v.id;
      if (checked) c["admitted"] = v.admitted;
      if (checked && !v.admitted) c["reason"] = v.reason;
      c["findings"] = KLTValue::array();
      for (const auto& f : v.findings) c["findings"].push_back(findingJson(f));
      report["campaigns"].push_back(std::move(c));
    }
    if (checked) {
      report["admitted"] = admitted;
      report["rejected"] = rejected;
    } else {
      report["admission"] = "not checked";
    }
    report["errors"] = errors;
    report["warnings"] = warnings;
    report["infos"] = infos;
    out << compactJson(report) << '\n';
  } else {
    if (!documentFindings.empty()) out << "document:\n";
    for (const auto& f : documentFindings) writeFinding(out, f);
    for (const auto& v : verdicts) {
      out << idText(v) << (!checked ? ":" : v.admitted ? ": admitted" : ": rejected: " + v.reason) << '\n';
      for (const auto& f : v.findings) writeFinding(out, f);
    }
    out << counted(static_cast<int>(verdicts.size()), " campaign: ", " campaigns: ");
    if (checked) {
      out << admitted << " admitted, " << rejected << " rejected; ";
    } else {
      out << "admission not checked; ";
    }
    out << counted(errors, " error, ", " errors, ") << counted(warnings, " warning, ", " warnings, ")
        << counted(infos, " info\n", " infos\n");
  }
  return errors > 0 ? 1 : 0;
}

}  // namespace kltce
