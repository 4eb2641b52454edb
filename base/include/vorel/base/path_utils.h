#pragma once

#include <filesystem>
#include <string>

#include <vorel/base/export.h>

namespace vorel::base {

/// The narrow (UTF-8 on POSIX) string form of `path`, naming the same file. This is the one form
/// of a path handed to file APIs and written into log messages.
VOREL_BASE_API std::string convertPathToString(const std::filesystem::path& path);

}  // namespace vorel::base
