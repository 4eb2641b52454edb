// The list of supported extensions against OpenImageIO's own "extension_list" attribute.

#include <algorithm>
#include <map>
#include <sstream>

#include <OpenImageIO/imageio.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;

namespace {

/// Splits `text` at every `separator`; an empty text gives no piece.
std::vector<std::string> splitAt(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

/// "format:ext,ext;format:ext" read independently of the library: formats in name order, their
/// extensions as listed, a piece without ':' ignored.
std::vector<std::string> expectedExtensions() {
    std::string list;
    EXPECT_TRUE(OIIO::getattribute("extension_list", list));
    std::map<std::string, std::vector<std::string>> byFormat;
    for (const std::string& piece : splitAt(list, ';')) {
        const std::size_t colon = piece.find(':');
        if (colon != std::string::npos) {
            byFormat[piece.substr(0, colon)] = splitAt(piece.substr(colon + 1), ',');
        }
    }
    std::vector<std::string> all;
    for (const auto& entry : byFormat) {
        all.insert(all.end(), entry.second.begin(), entry.second.end());
    }
    return all;
}

class SupportedExtensions : public LibraryTest {};

TEST_F(SupportedExtensions, AreOpenImageIOsListOrderedByFormatNameAndBare) {
    const std::vector<std::string> expected = expectedExtensions();
    ASSERT_FALSE(expected.empty());

    const std::vector<std::string> extensions = ip::getSupportedImageExtensions();
    EXPECT_EQ(extensions, expected);
    EXPECT_TRUE(std::none_of(extensions.begin(), extensions.end(),
                             [](const std::string& e) { return e.empty() || e[0] == '.'; }));
    // A second call parses again and gives the same answer.
    EXPECT_EQ(ip::getSupportedImageExtensions(), extensions);
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
