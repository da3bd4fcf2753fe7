// KLTTestMount: a small tmpfs mounted for one test, to make a file system that fills up or turns
// read-only under the code being tested. Mounting needs root (CAP_SYS_ADMIN); elsewhere the mount
// is not made and why() says so, for the test to skip with that message. Unmounted on destruction.
//
// Test support only; not thread-safe.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "testsupport/KLTTestHost.h"

class KLTTestMount {
 public:
  explicit KLTTestMount(uint64_t bytes);
  KLTTestMount(const KLTTestMount&) = delete;
  KLTTestMount& operator=(const KLTTestMount&) = delete;
  ~KLTTestMount();

  bool mounted() const { return mounted_; }
  const std::string& why() const { return why_; }
  const std::filesystem::path& path() const { return dir_.path(); }

  // Writes a file that takes every byte left; false when nothing could be written.
  bool fill(const std::filesystem::path& file) const;
  // Remounts read-only (or back writable); false when the remount failed.
  bool setReadOnly(bool readOnly);

 private:
  KLTTempDir dir_;
  uint64_t bytes_;
  bool mounted_ = false;
  std::string why_;
};
