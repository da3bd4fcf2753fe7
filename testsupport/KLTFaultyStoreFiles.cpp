#include "testsupport/KLTFaultyStoreFiles.h"

KLTStoreFiles::ReadStatus KLTFaultyStoreFiles::read(const std::filesystem::path& path, std::string& out) {
  if (failRead_.exchange(false)) return ReadStatus::Failed;
  return KLTPosixStoreFiles::read(path, out);
}

bool KLTFaultyStoreFiles::replace(const std::filesystem::path& path, std::string_view data) {
  ++writes_;
  if (failWrites_ > 0) {
    --failWrites_;
    return false;
  }
  if (cutAfter_.exchange(-1) >= 0) return false;  // the rename never happened
  return KLTPosixStoreFiles::replace(path, data);
}

bool KLTFaultyStoreFiles::append(const std::filesystem::path& path, std::string_view data) {
  ++writes_;
  if (failWrites_ > 0) {
    --failWrites_;
    return false;
  }
  const long long cut = cutAfter_.exchange(-1);
  if (cut >= 0) {
    KLTPosixStoreFiles::append(path, data.substr(0, std::min<std::size_t>(static_cast<std::size_t>(cut), data.size())));
    return false;
  }
  return KLTPosixStoreFiles::append(path, data);
}
