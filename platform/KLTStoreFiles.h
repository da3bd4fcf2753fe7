// KLTStoreFiles: the file operations of the user-defaults store, as a seam so that tests can make a
// write fail or stop halfway, as a crash or a full disk would.
//
// Thread-safety: the POSIX implementation is stateless and may be used from any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

class KLTStoreFiles {
 public:
  KLTStoreFiles() = default;
  KLTStoreFiles(const KLTStoreFiles&) = delete;
  KLTStoreFiles& operator=(const KLTStoreFiles&) = delete;
  virtual ~KLTStoreFiles() = default;

  enum class ReadStatus { Ok, Absent, Failed };
  // Reads the whole file into out.
  virtual ReadStatus read(const std::filesystem::path& path, std::string& out) = 0;
  // Replaces the file's content atomically: a reader sees the old or the new content, never a mix.
  virtual bool replace(const std::filesystem::path& path, std::string_view data) = 0;
  // Appends to the file (created when absent). On failure part of the data may have been written.
  virtual bool append(const std::filesystem::path& path, std::string_view data) = 0;
  // Cuts the file to size bytes.
  virtual bool truncate(const std::filesystem::path& path, std::uintmax_t size) = 0;
  // Renames the file to a free name beside it; returns that name.
  virtual std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path,
                                                         std::string_view suffix) = 0;
  virtual bool remove(const std::filesystem::path& path) = 0;
};

// Plain POSIX files: replace() writes a temporary file in the same folder, flushes it and renames
// it over the old one; append() writes with O_APPEND.
class KLTPosixStoreFiles : public KLTStoreFiles {
 public:
  ReadStatus read(const std::filesystem::path& path, std::string& out) override;
  bool replace(const std::filesystem::path& path, std::string_view data) override;
  bool append(const std::filesystem::path& path, std::string_view data) override;
  bool truncate(const std::filesystem::path& path, std::uintmax_t size) override;
  std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path,
                                                 std::string_view suffix) override;
  bool remove(const std::filesystem::path& path) override;
};
