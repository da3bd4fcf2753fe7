#include "tools/kltce/replay/buffered_log.h"

#include <unistd.h>

#include <cerrno>

namespace kltce {

BufferedLogSink::BufferedLogSink(int fd, std::size_t blockSize) : fd_(fd), blockSize_(blockSize) {
  buffer_.reserve(blockSize_ + 4096);
}

BufferedLogSink::~BufferedLogSink() { flush(); }

void BufferedLogSink::write(std::string_view line) {
  std::lock_guard lock(mutex_);
  buffer_.append(line);
  if (buffer_.size() >= blockSize_) writeOut();
}

void BufferedLogSink::writeLine(KLTLogLevel level, std::string_view message, std::string_view method, int line) {
  std::lock_guard lock(mutex_);
  KLTLog::appendLine(buffer_, level, message, method, line);
  if (buffer_.size() >= blockSize_) writeOut();
}

void BufferedLogSink::flush() {
  std::lock_guard lock(mutex_);
  writeOut();
}

void BufferedLogSink::writeOut() {
  std::size_t done = 0;
  while (done < buffer_.size()) {
    const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // standard error is gone: what is left cannot be written anywhere
    done += static_cast<std::size_t>(n);
  }
  buffer_.clear();
}

ScopedBufferedLog::ScopedBufferedLog()
    : sink_(std::make_shared<BufferedLogSink>(STDERR_FILENO)), previous_(KLTLog::setSink(sink_)) {}

ScopedBufferedLog::~ScopedBufferedLog() {
  sink_->flush();
  KLTLog::setSink(previous_);
}

}  // namespace kltce
