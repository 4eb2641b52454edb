#pragma once

#include <string>

#include <vorel/base/export.h>

namespace vorel::base::strUtils {

/// `text` with the ASCII letters A-Z lowered; every other byte (digits, dots, UTF-8 sequences) is
/// kept as it is.
VOREL_BASE_API std::string toLower(const std::string& text);

}  // namespace vorel::base::strUtils
