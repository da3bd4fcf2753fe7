// KLTDeviceFacts: what the host knows of the device and the app's life on it: the hardware model
// name and whether the user is in the app's first session. KLTUtilities' deviceName() and
// isFirstSession() read the facts in effect on the calling thread (a seam, platform/KLTSeam.h): an
// engine instance binds its own on the thread that runs its tasks, else the process's are read.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/KLTSeam.h"

class KLTDeviceFacts {
 public:
  // The machine name the operating system reports (such as "x86_64"), not the first session.
  KLTDeviceFacts();
  KLTDeviceFacts(const KLTDeviceFacts&) = delete;
  KLTDeviceFacts& operator=(const KLTDeviceFacts&) = delete;

  std::string deviceName() const;
  void setDeviceName(std::string name);
  bool isFirstSession() const;
  void setFirstSession(bool first);

  static KLTSeam<KLTDeviceFacts>& seam();

 private:
  mutable std::mutex mutex_;
  std::string name_;
  bool firstSession_ = false;
};
