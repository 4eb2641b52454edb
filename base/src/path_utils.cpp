#include <vorel/base/path_utils.h>

namespace vorel::base {

std::string convertPathToString(const std::filesystem::path& path) {
    // u8string keeps characters outside ASCII intact whatever the locale says.
    const auto utf8 = path.u8string();
    return std::string(utf8.begin(), utf8.end());
}

}  // namespace vorel::base
