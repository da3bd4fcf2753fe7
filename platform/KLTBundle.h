// KLTBundle: the application's own version string ("short version", such as "2.4.1"), which the
// embedding code sets once it knows it. Audience version rules compare against it.
//
// The static functions act on the bundle in effect on the calling thread (a seam,
// platform/KLTSeam.h): the one an engine instance binds on the thread that runs its tasks, else the
// process's own. Thread-safety: every operation may be called from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/KLTSeam.h"

class KLTBundle {
 public:
  KLTBundle() = default;
  KLTBundle(const KLTBundle&) = delete;
  KLTBundle& operator=(const KLTBundle&) = delete;

  // This bundle's version; nothing until one is set.
  std::optional<std::string> version() const;
  void setVersion(std::optional<std::string> version);

  // The application's version in the bundle in effect; nothing when the embedding code has not set one.
  static std::optional<std::string> shortVersionString();
  // Sets (or, with nothing, clears) the application's version in the bundle in effect.
  static void setShortVersionString(std::optional<std::string> version);
  static KLTSeam<KLTBundle>& seam();

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> version_;
};
