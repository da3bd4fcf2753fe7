// BufferedLogSink: the engine's log sink for `kltce run`. A replay can log millions of lines (a
// capped campaign logs at every completion); this sink gathers them and writes to standard error
// in large blocks instead of one write() per line.
//
// Lines keep their order and are never cut. What the sink holds is written when it passes the
// block size, at flush() (the replay calls KLTLog::flush() before each of its own messages on
// standard error, so the two kinds of line keep the order in which they were made) and at
// destruction. Thread-safety: write() and flush() may be called from any thread.
#pragma once

#include <mutex>
#include <string>

#include "platform/KLTLog.h"

namespace kltce {

class BufferedLogSink final : public KLTLogSink {
 public:
  explicit BufferedLogSink(int fd, std::size_t blockSize = 64 * 1024);
  ~BufferedLogSink() override;

  void write(std::string_view line) override;
  void writeLine(KLTLogLevel level, std::string_view message, std::string_view method, int line) override;
  void flush() override;

 private:
  void writeOut();  // with mutex_ held

  const int fd_;
  const std::size_t blockSize_;
  std::mutex mutex_;
  std::string buffer_;
};

// Installs a BufferedLogSink on standard error for its lifetime, then flushes it and restores the
// previous sink.
class ScopedBufferedLog {
 public:
  ScopedBufferedLog();
  ~ScopedBufferedLog();
  ScopedBufferedLog(const ScopedBufferedLog&) = delete;
  ScopedBufferedLog& operator=(const ScopedBufferedLog&) = delete;
  void flush() { sink_->flush(); }

 private:
  std::shared_ptr<BufferedLogSink> sink_;
  std::shared_ptr<KLTLogSink> previous_;
};

}  // namespace kltce
