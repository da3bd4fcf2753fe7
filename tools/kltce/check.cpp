#include "tools/kltce/check.h"

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include <mutex>

#include "platform/KLTLog.h"
#include "platform/KLTVirtualClock.h"
#include "tools/kltce/json_text.h"

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

}  // namespace

std::vector<CampaignVerdict> checkCampaigns(const KLTValue& configs) {
  std::vector<CampaignVerdict> verdicts;
  if (!configs.is_array()) return verdicts;
  auto& evaluator = KLTContextEvaluator::sharedInstance();  // its start-up line stays out of the capture
  for (std::size_t i = 0; i < configs.size(); ++i) {
    CampaignVerdict v;
    v.index = i;
    v.id = klt::valueForKey(configs[i], "_id");
    {
      auto capture = CheckLogCapture::install();
      v.admitted = evaluator.checkConfiguration(configs[i]);
      capture->uninstall();
      if (!v.admitted) v.reason = reasonFrom(capture->lines());
    }
    if (v.admitted) v.findings = analyzeCampaign(configs[i]);
    verdicts.push_back(std::move(v));
  }
  return verdicts;
}

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
  applyProfile(options.profile);
  std::vector<CampaignVerdict> verdicts;
  {
    ClockOverride clock(options.at);
    verdicts = checkCampaigns(configs);
  }
  int admitted = 0, rejected = 0, errors = 0, warnings = 0;
  for (const auto& v : verdicts) {
    (v.admitted ? admitted : rejected)++;
    for (const auto& f : v.findings) (f.severity == Severity::Error ? errors : warnings)++;
  }
  if (options.json) {
    KLTValue report = KLTValue::object();
    report["campaigns"] = KLTValue::array();
    for (const auto& v : verdicts) {
      KLTValue c = KLTValue::object();
      c["index"] = v.index;
      c["id"] = v.id;
      c["admitted"] = v.admitted;
      if (!v.admitted) c["reason"] = v.reason;
      c["findings"] = KLTValue::array();
      for (const auto& f : v.findings) {
        c["findings"].push_back({{"severity", severityName(f.severity)}, {"where", f.where}, {"message", f.message}});
      }
      report["campaigns"].push_back(std::move(c));
    }
    report["admitted"] = admitted;
    report["rejected"] = rejected;
    report["errors"] = errors;
    report["warnings"] = warnings;
    out << compactJson(report) << '\n';
  } else {
    for (const auto& v : verdicts) {
      if (v.admitted) {
        out << idText(v) << ": admitted\n";
      } else {
        out << idText(v) << ": rejected: " << v.reason << '\n';
      }
      for (const auto& f : v.findings) out << "  " << severityName(f.severity) << " " << f.where << ": " << f.message << '\n';
    }
    out << verdicts.size() << (verdicts.size() == 1 ? " campaign: " : " campaigns: ") << admitted << " admitted, "
        << rejected << " rejected; " << errors << (errors == 1 ? " error, " : " errors, ") << warnings
        << (warnings == 1 ? " warning\n" : " warnings\n");
  }
  return (rejected > 0 || errors > 0) ? 1 : 0;
}

}  // namespace kltce
