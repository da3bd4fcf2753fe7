// The SHA-256 of a file's bytes as lowercase hex, as `sha256sum` prints it: what a report's header
// gives to tell which document it was made from.
//
// Reads the file; safe from any thread. Nothing throws.
#pragma once

#include <optional>
#include <string>

namespace kltce {

// The digest, or nothing (error set) when the file cannot be read.
std::optional<std::string> sha256OfFile(const std::string& path, std::string& error);

}  // namespace kltce
