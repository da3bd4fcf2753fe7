// KLTStoreLock: an advisory lock that makes one process at a time the writer of a store file.
//
// The lock is an exclusive flock() on "<store>.lock" beside the store, taken without waiting and
// held until the object goes (the operating system drops it when the process ends, however it
// ends, so a killed writer never leaves a stale lock). The lock file itself stays: removing it
// while another process waits to lock it would let two writers in.
//
// Two writers of one store would each save the counters they hold and the last to save would win,
// losing the other's counts; taking this lock first turns the second into a clear refusal.
// Readers (a read-only KLTUserDefaults) need no lock: SQLite gives them a consistent view.
//
// Thread-safety: an object is owned by one thread. The lock belongs to the object, not to the
// process: a second acquire of the same store in the same process is refused as well.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

class KLTStoreLock {
 public:
  // The lock of the store at path; nullptr, with why set to one line, when another process holds it
  // or the lock file cannot be made (why says which).
  static std::unique_ptr<KLTStoreLock> acquire(const std::filesystem::path& store, std::string& why);
  KLTStoreLock(const KLTStoreLock&) = delete;
  KLTStoreLock& operator=(const KLTStoreLock&) = delete;
  ~KLTStoreLock();

  static std::filesystem::path lockPath(const std::filesystem::path& store);

 private:
  explicit KLTStoreLock(int fd) : fd_(fd) {}
  int fd_;
};
