#include <vorel/base/str_utils.h>

#include <algorithm>

namespace vorel::base::strUtils {

std::string toLower(const std::string& text) {
    std::string lowered(text);
    // Only ASCII letters: std::tolower depends on the locale and would touch UTF-8 bytes.
    std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) {
        return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return lowered;
}

}  // namespace vorel::base::strUtils
