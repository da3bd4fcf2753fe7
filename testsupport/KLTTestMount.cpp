#include "testsupport/KLTTestMount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

KLTTestMount::KLTTestMount(uint64_t bytes) : bytes_(bytes) {
  if (::geteuid() != 0) {
    why_ = "not root: cannot mount a tmpfs for this test";
    return;
  }
  const std::string options = "size=" + std::to_string(bytes_);
  if (::mount("tmpfs", dir_.path().c_str(), "tmpfs", 0, options.c_str()) != 0) {
    why_ = std::string("cannot mount a tmpfs: ") + std::strerror(errno);
    return;
  }
  mounted_ = true;
}

KLTTestMount::~KLTTestMount() {
  if (mounted_) ::umount2(dir_.path().c_str(), MNT_DETACH);
}

bool KLTTestMount::fill(const std::filesystem::path& file) const {
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::vector<char> block(4096, 'f');
  uint64_t written = 0;
  for (;;) {
    const ssize_t n = ::write(fd, block.data(), block.size());
    if (n <= 0) break;
    written += static_cast<uint64_t>(n);
  }
  // What is left is less than a block: take it byte by byte.
  while (::write(fd, block.data(), 1) == 1) ++written;
  ::close(fd);
  return written > 0;
}

bool KLTTestMount::setReadOnly(bool readOnly) {
  const std::string options = "size=" + std::to_string(bytes_);
  return ::mount("tmpfs", dir_.path().c_str(), "tmpfs", MS_REMOUNT | (readOnly ? MS_RDONLY : 0), options.c_str()) == 0;
}
