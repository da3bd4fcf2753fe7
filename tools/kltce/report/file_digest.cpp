#include "tools/kltce/report/file_digest.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

namespace kltce {

std::optional<std::string> sha256OfFile(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot read '" + path + "': " + std::strerror(errno);
    return std::nullopt;
  }
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    error = "SHA-256 is not available";
    return std::nullopt;
  }
  std::vector<char> buffer(1 << 16);
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    if (in.gcount() > 0) EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(in.gcount()));
  }
  if (in.bad()) {
    error = "reading '" + path + "' failed";
    return std::nullopt;
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(context.get(), digest, &size);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < size; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 15];
  }
  return out;
}

}  // namespace kltce
