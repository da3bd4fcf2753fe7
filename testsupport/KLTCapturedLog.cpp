#include "testsupport/KLTCapturedLog.h"

void KLTCapturedLog::write(std::string_view line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(line);
}

std::vector<std::string> KLTCapturedLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

int KLTCapturedLog::count(std::string_view text) const {
  std::lock_guard lock(mutex_);
  int n = 0;
  for (const auto& l : lines_) n += l.find(text) != std::string::npos;
  return n;
}

void KLTCapturedLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

KLTScopedLogCapture::KLTScopedLogCapture(long logLevel)
    : log_(std::make_shared<KLTCapturedLog>()), previous_(KLTLog::setSink(log_)), previousLevel_(LOG_LEVEL.load()) {
  LOG_LEVEL = logLevel;
}

KLTScopedLogCapture::~KLTScopedLogCapture() {
  KLTLog::setSink(previous_);
  LOG_LEVEL = previousLevel_;
}
