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

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<KLTLogSink>& sinkSlot() {
  static std::shared_ptr<KLTLogSink> slot = std::make_shared<StderrSink>();
  return slot;
}

// Bumped by every setSink(): a thread's cached sink is current while the numbers agree (starts at
// 1 so that an empty cache is never taken for current).
std::atomic<uint64_t> sinkGeneration{1};

struct CachedSink {
  uint64_t generation = 0;
  std::shared_ptr<KLTLogSink> sink;
};

}  // namespace

std::shared_ptr<KLTLogSink> KLTLog::setSink(std::shared_ptr<KLTLogSink> sink) {
  if (!sink) sink = std::make_shared<StderrSink>();
  std::lock_guard lock(sinkMutex());
  sinkSlot().swap(sink);
  sinkGeneration.fetch_add(1, std::memory_order_release);
  return sink;
}

namespace {

// The present sink as this thread last read it. Read at every log line: one atomic load on the
// common path rather than a process-wide lock, and no count of references taken.
const std::shared_ptr<KLTLogSink>& cachedSink() {
  thread_local CachedSink cached;
  if (cached.generation != sinkGeneration.load(std::memory_order_acquire)) {
    std::lock_guard lock(sinkMutex());
    cached.sink = sinkSlot();
    cached.generation = sinkGeneration.load(std::memory_order_relaxed);
  }
  return cached.sink;
}

}  // namespace

std::shared_ptr<KLTLogSink> KLTLog::sink() { return cachedSink(); }

bool KLTLog::enabled(KLTLogLevel level) {
  const auto gate = static_cast<unsigned long>(LOG_LEVEL.load(std::memory_order_relaxed));
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
  cachedSink()->writeLine(level, message, method, line);
}

void KLTLog::emitFormatted(std::string_view line) { cachedSink()->write(line); }
