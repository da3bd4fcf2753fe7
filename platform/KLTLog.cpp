#include "platform/KLTLog.h"

#include <unistd.h>

#include <cstring>
#include <charconv>
#include <mutex>

std::atomic<long> LOG_LEVEL{2};

namespace {

class StderrSink final : public KLTLogSink {
 public:
  void write(std::string_view line) override {
    // One write() call per line keeps lines from different threads whole.
    std::size_t done = 0;
    while (done < line.size()) {
      const ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
      if (n <= 0) return;
      done += static_cast<std::size_t>(n);
    }
  }
};

}  // namespace

KLTSeam<KLTLogSink>& KLTLog::sinkSeam() {
  static KLTSeam<KLTLogSink> seam([]() -> std::shared_ptr<KLTLogSink> { return std::make_shared<StderrSink>(); },
                                  KLTSeamCache::PerThread);
  return seam;
}

KLTSeam<std::atomic<long>>& KLTLog::levelSeam() {
  // The default gate is the host's global itself, never freed.
  static KLTSeam<std::atomic<long>> seam(
      []() { return std::shared_ptr<std::atomic<long>>(std::shared_ptr<void>(), &LOG_LEVEL); });
  return seam;
}

std::shared_ptr<KLTLogSink> KLTLog::setSink(std::shared_ptr<KLTLogSink> sink) { return sinkSeam().replaceDefault(std::move(sink)); }

std::shared_ptr<KLTLogSink> KLTLog::sink() { return sinkSeam().current(); }

bool KLTLog::enabled(KLTLogLevel level) {
  // Read at every log statement: a thread with no level bound reads the global without the seam.
  const std::atomic<long>& gateLevel = KLTSeam<std::atomic<long>>::bound() ? *levelSeam().currentCached() : LOG_LEVEL;
  const auto gate = static_cast<unsigned long>(gateLevel.load(std::memory_order_relaxed));
  switch (level) {
    case KLTLogLevel::Debug:
      return gate <= 1;
    case KLTLogLevel::Error:
      return gate <= 3;
    case KLTLogLevel::Info:
      return true;
  }
  return true;
}

void KLTLogSink::writeLine(KLTLogLevel level, std::string_view message, std::string_view method, int line) {
  write(KLTLog::format(level, message, method, line));
}

std::string KLTLog::format(KLTLogLevel level, std::string_view message, std::string_view method, int line) {
  std::string out;
  // One allocation for the whole line: the level tag, the texts and up to eleven characters of
  // number with the spaces.
  out.reserve(32 + message.size() + method.size());
  appendLine(out, level, message, method, line);
  return out;
}

void KLTLog::appendLine(std::string& out, KLTLogLevel level, std::string_view message, std::string_view method,
                        int line) {
  std::string_view tag;
  switch (level) {
    case KLTLogLevel::Debug:
      tag = "<KLT DEBUG> ";
      break;
    case KLTLogLevel::Info:
      tag = "<KLT INFO> ";
      break;
    case KLTLogLevel::Error:
      tag = "<KLT ERROR> ";
      break;
  }
  char digits[16];
  const std::string_view number(digits, static_cast<std::size_t>(std::to_chars(digits, digits + sizeof digits, line).ptr - digits));
  // One growth and one copy per piece: a replay writes millions of these lines.
  const std::size_t at = out.size();
  out.resize(at + tag.size() + message.size() + method.size() + number.size() + 3);
  char* p = out.data() + at;
  const auto put = [&p](std::string_view piece) {
    std::memcpy(p, piece.data(), piece.size());
    p += piece.size();
  };
  put(tag);
  put(message);
  *p++ = ' ';
  put(method);
  *p++ = ':';
  put(number);
  *p = '\n';
}

void KLTLog::emit(KLTLogLevel level, std::string_view message, std::string_view method, int line) {
  if (!enabled(level)) return;
  sinkSeam().currentCached()->writeLine(level, message, method, line);
}

void KLTLog::emitFormatted(std::string_view line) { sinkSeam().currentCached()->write(line); }
