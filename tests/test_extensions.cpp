// The list of supported extensions against OpenImageIO's own "extension_list" attribute.

#include <map>

#include <OpenImageIO/strutil.h>

#include "test_support.h"

namespace {

TEST(SupportedExtensions, AreOpenImageIOsListOrderedByFormatName) {
    // "format:ext,ext;format:ext" read here on its own: a piece without ':' adds nothing.
    std::string list;
    ASSERT_TRUE(OIIO::getattribute("extension_list", list));
    std::map<std::string, std::vector<std::string>> byFormat;
    for (const std::string& piece : OIIO::Strutil::splits(list, ";")) {
        const std::vector<std::string> parts = OIIO::Strutil::splits(piece, ":", 2);
        if (parts.size() == 2) {
            byFormat[parts[0]] = OIIO::Strutil::splits(parts[1], ",");
        }
    }
    std::vector<std::string> expected;
    for (const auto& [format, extensions] : byFormat) {
        expected.insert(expected.end(), extensions.begin(), extensions.end());
    }
    ASSERT_GT(expected.size(), byFormat.size());  // several formats list more than one
    EXPECT_EQ(vorel::usd::image_processing::getSupportedImageExtensions(), expected);
}

}  // namespace
