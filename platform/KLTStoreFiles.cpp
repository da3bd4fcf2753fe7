#include "platform/KLTStoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

bool writeAll(int fd, std::string_view data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

KLTStoreFiles::ReadStatus KLTPosixStoreFiles::read(const std::filesystem::path& path, std::string& out) {
  out.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? ReadStatus::Absent : ReadStatus::Failed;
  char buf[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return ReadStatus::Failed;
    }
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return ReadStatus::Ok;
}

bool KLTPosixStoreFiles::replace(const std::filesystem::path& path, std::string_view data) {
  std::filesystem::path tmp = path;
  tmp += ".tmp";
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  // fsync before the rename so that the new name never points at unwritten blocks after a power cut.
  const bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
  ::close(fd);
  if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
    ::unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool KLTPosixStoreFiles::append(const std::filesystem::path& path, std::string_view data) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  // One write into the page cache: durable against the process being killed at any instant.
  const bool ok = writeAll(fd, data);
  ::close(fd);
  return ok;
}

bool KLTPosixStoreFiles::truncate(const std::filesystem::path& path, std::uintmax_t size) {
  return ::truncate(path.c_str(), static_cast<off_t>(size)) == 0;
}

std::optional<std::filesystem::path> KLTPosixStoreFiles::moveAside(const std::filesystem::path& path,
                                                                   std::string_view suffix) {
  for (int i = 0; i < 1000; ++i) {
    std::string name = path.string();
    name.push_back('.');
    name.append(suffix);
    if (i) {
      name.push_back('-');
      name.append(std::to_string(i));
    }
    const std::filesystem::path target(name);
    struct stat st {};
    if (::stat(target.c_str(), &st) == 0) continue;
    if (::rename(path.c_str(), target.c_str()) == 0) return target;
    return std::nullopt;
  }
  return std::nullopt;
}

bool KLTPosixStoreFiles::remove(const std::filesystem::path& path) {
  return ::unlink(path.c_str()) == 0 || errno == ENOENT;
}
