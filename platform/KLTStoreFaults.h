// KLTStoreFaults: the switch through which a test makes the user-defaults store's next writes fail,
// as a full disk or an I/O error would: the synchronize rolls its transaction back and reports
// false, leaving the file as it was. It also sets how long the store waits for a file that another
// program holds locked before it gives up (5 s unless a test shortens it).
//
// Thread-safety: may be set from any thread; the store consults it under its own lock.
#pragma once

#include <atomic>

class KLTStoreFaults {
 public:
  // The next n synchronizes that have something to write fail.
  void failNextWrites(int n) { failures_ = n; }
  // Whether the write under way must fail (consumes one failure).
  bool takeWriteFailure() {
    int n = failures_.load();
    while (n > 0) {
      if (failures_.compare_exchange_weak(n, n - 1)) return true;
    }
    return false;
  }
  void setBusyWaitMillis(int millis) { busyWaitMillis_ = millis; }
  int busyWaitMillis() const { return busyWaitMillis_; }

 private:
  std::atomic<int> failures_{0};
  std::atomic<int> busyWaitMillis_{5000};
};
