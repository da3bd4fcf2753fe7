// KLTCapturedLog: a log sink that keeps every line, and KLTScopedLogCapture, which installs one (and
// a LOG_LEVEL) for its lifetime and restores the previous sink and level afterwards.
//
// Thread-safety: write() and the readers may be called from any thread.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/KLTLog.h"

class KLTCapturedLog final : public KLTLogSink {
 public:
  void write(std::string_view line) override;
  std::vector<std::string> lines() const;
  // Lines holding the text.
  int count(std::string_view text) const;
  bool contains(std::string_view text) const { return count(text) > 0; }
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class KLTScopedLogCapture {
 public:
  explicit KLTScopedLogCapture(long logLevel = 0);
  KLTScopedLogCapture(const KLTScopedLogCapture&) = delete;
  KLTScopedLogCapture& operator=(const KLTScopedLogCapture&) = delete;
  ~KLTScopedLogCapture();
  KLTCapturedLog& log() { return *log_; }

 private:
  std::shared_ptr<KLTCapturedLog> log_;
  std::shared_ptr<KLTLogSink> previous_;
  long previousLevel_;
};
