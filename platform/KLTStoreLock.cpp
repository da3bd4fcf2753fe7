#include "platform/KLTStoreLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

std::filesystem::path KLTStoreLock::lockPath(const std::filesystem::path& store) {
  std::filesystem::path p = store;
  p += ".lock";
  return p;
}

std::unique_ptr<KLTStoreLock> KLTStoreLock::acquire(const std::filesystem::path& store, std::string& why) {
  const std::filesystem::path path = lockPath(store);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
  if (fd < 0) {
    why = "cannot make the lock file " + path.string() + ": " + std::strerror(errno);
    return nullptr;
  }
  int rc;
  while ((rc = ::flock(fd, LOCK_EX | LOCK_NB)) != 0 && errno == EINTR) {
  }
  if (rc != 0) {
    const int error = errno;
    ::close(fd);
    why = error == EWOULDBLOCK ? "another process is writing " + store.string() + " (it holds " + path.string() + ")"
                               : "cannot lock " + path.string() + ": " + std::strerror(error);
    return nullptr;
  }
  return std::unique_ptr<KLTStoreLock>(new KLTStoreLock(fd));
}

KLTStoreLock::~KLTStoreLock() { ::close(fd_); }
