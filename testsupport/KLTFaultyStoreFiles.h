// KLTFaultyStoreFiles: POSIX store files that can be told to fail their next writes, or to write
// only the first bytes of the next write and then fail, as a crash or a full disk would leave it.
//
// Thread-safety: the switches and the file operations may be used from any thread.
#pragma once

#include <atomic>

#include "platform/KLTStoreFiles.h"

class KLTFaultyStoreFiles final : public KLTPosixStoreFiles {
 public:
  // The next n writes (append or replace) fail without writing anything.
  void failNextWrites(int n) { failWrites_ = n; }
  // The next write writes only its first `bytes` bytes (append) or nothing (replace), then fails.
  void cutNextWriteAfter(std::size_t bytes) { cutAfter_ = static_cast<long long>(bytes); }
  // The next read reports an I/O failure.
  void failNextRead() { failRead_ = true; }
  int writeCount() const { return writes_; }

  ReadStatus read(const std::filesystem::path& path, std::string& out) override;
  bool replace(const std::filesystem::path& path, std::string_view data) override;
  bool append(const std::filesystem::path& path, std::string_view data) override;

 private:
  std::atomic<int> failWrites_{0};
  std::atomic<long long> cutAfter_{-1};
  std::atomic<bool> failRead_{false};
  std::atomic<int> writes_{0};
};
