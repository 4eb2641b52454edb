// The colour policy by extension and the three writers, proven on real files read back through
// OpenImageIO's ImageInput, and the calls that would take OpenImageIO 2.4.7's writers down.

#include <tuple>

#include <OpenImageIO/imagebufalgo.h>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "test_support.h"

namespace fs = std::filesystem;
namespace ip = vorel::usd::image_processing;
using namespace vorel::test;
using spdlog::level::debug;
using spdlog::level::err;
using spdlog::level::warn;
using Messages = std::vector<std::pair<spdlog::level::level_enum, std::string>>;
using Strings = std::vector<std::string>;
using ::testing::MatchesRegex;

namespace {

/// Every subimage of `file` as an independent reader sees it: "name channels format WxH fps".
Strings subimages(const fs::path& file) {
    Strings found;
    const auto in = OIIO::ImageInput::open(file.string());
    for (int i = 0; in && in->seek_subimage(i, 0); ++i) {
        const OIIO::ImageSpec& spec = in->spec();
        int fps[2] = {0, 0};
        spec.getattribute("FramesPerSecond", OIIO::TypeRational, fps);
        found.push_back(fmt::format("{} {} {} {}x{} {}/{}",
                                    spec.get_string_attribute("oiio:subimagename"), spec.nchannels,
                                    spec.format.c_str(), spec.width, spec.height, fps[0], fps[1]));
    }
    return found;
}

ip::Image tagged(const std::string& colorSpace, int channels = 3,
                 OIIO::TypeDesc format = OIIO::TypeFloat, int width = 8, int height = 6) {
    ip::Image image = makeGradient(width, height, channels, format);
    image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
    return image;
}

class Writing : public LibraryTest {
protected:
    /// Every line logged since the last call.
    Messages messages() {
        Messages all;
        for (const auto& record : log.records())
            all.emplace_back(record.level, record.message);
        log.clear();
        return all;
    }
};

TEST_F(Writing, ColourPolicyConvertsForTheExtensionAndTheWriterOnlyReportsMismatches) {
    // `to`: the space converted to, "" for none. The image is written converted, with no report,
    // and as it was: strict (S) extensions report a mismatch and write all the same, lenient (L)
    // ones never report, and (-) has no writer.
    const struct {
        const char *file, *from, *to, *extension, written;
    } cases[] = {
        {"a.JPEG", "linear", "sRGB", ".jpeg", 'S'},
        {"a.b.Gif", "srgb", "sRGB", ".gif", 'S'},
        {"a.Bmp", "linear", "sRGB", ".bmp", 'S'},
        {"a.WEBP", "linear", "sRGB", ".webp", 'S'},
        {"a.EXR", "Rec709", "linear", ".exr", 'S'},
        {"a.exr", "linear", "", ".exr", 'S'},
        {"a.Tiff", "sRGB", "linear", ".tiff", 'L'},
        {"a.tif", "srgb", "linear", ".tif", 'L'},
        {"a.png", "linear", "sRGB", ".png", 'L'},
        {"a.PNG", "sRGB", "", ".png", 'L'},
        {"a.xyz", "linear", "", ".xyz", '-'},
        {"noextension", "sRGB", "", "", '-'},
        {".exr", "sRGB", "", "", '-'},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " from " + c.from);
        const std::string to = c.to, extension = "extension '" + std::string(c.extension) + "'";
        ip::Image image = tagged(c.from);
        log.clear();
        EXPECT_EQ(ip::colorConvertByFormat(image, temp / c.file), !to.empty());
        Messages expected{{debug, to.empty() ? "No color conversion needed for " + extension
                                             : "Converted image from '" + std::string(c.from) +
                                                   "' to '" + to + "' for " + extension}};
        if (to == "linear") {
            expected.emplace_back(warn,
                                  "Converting to linear space, this is not normally recommended "
                                  "and could result in loss of information.  It would be better  "
                                  "to keep everything in linear space before exporting");
        }
        EXPECT_EQ(messages(), expected);
        EXPECT_EQ(ip::getColorSpace(image), to.empty() ? c.from : to);
        EXPECT_TRUE(!to.empty() || sameImage(image.buffer, tagged(c.from).buffer));
        if (c.written == '-')
            continue;
        ASSERT_TRUE(ip::writeImage(image, temp / c.file, 6));
        expectNoWarnings();
        EXPECT_NE(subimages(temp / c.file).at(0).find(" 8x6 "), std::string::npos);
        ASSERT_TRUE(ip::writeImage(tagged(c.from), temp / c.file));
        if (c.written == 'S' && !to.empty())
            expectOnly(err, fmt::format("Image with color space '{}' cannot be written to '{}' "
                                        "extension, which requires {} color space. Please convert "
                                        "the image to {} before writing.",
                                        c.from, c.extension, to, to));
        expectNoWarnings();
    }
    // Float samples reach OpenEXR exactly.
    const OIIO::ImageBuf exr((temp / "a.exr").string());
    EXPECT_EQ(OIIO::ImageBufAlgo::compare(exr, tagged("").buffer, 0, 0).nfail, 0u);
    ip::Image untagged = tagged("");
    EXPECT_FALSE(ip::colorConvertByFormat(untagged, "b.jpg"));
    expectOnly(warn, "Image has no color space set and is unknown, no conversions will be done");
    EXPECT_TRUE(ip::writeImage(untagged, temp / "b.jpg"));
    expectOnly(warn,
               "Image has no color space set, unable to verify the correct color space is used "
               "for writing to disk for the specified extension");
    // A conversion that fails still counts as run, and leaves the empty Image behind.
    ip::Image unknown = tagged("unknown");
    EXPECT_TRUE(ip::colorConvertByFormat(unknown, "a.jpg"));
    EXPECT_FALSE(unknown.buffer.initialized());
    EXPECT_EQ(log.records().back().message,
              "Converted image from 'unknown' to 'sRGB' for extension '.jpg'");
    expectOnly(err, "colorConvert operation failed:\n");
}

TEST_F(Writing, WritesThePngLevelAndReportsFailures) {
    // The level reaches the PNG writer; the debug lines of a write, the timing last.
    const ip::Image image = tagged("sRGB", 3, OIIO::TypeDesc::UINT8, 64, 64);
    const std::string stored = (temp / "stored.png").string();
    ASSERT_TRUE(ip::writeImage(image, temp / "packed.png", 9));
    log.clear();
    ASSERT_TRUE(ip::writeImage(image, stored, 0));
    EXPECT_GT(fs::file_size(stored), 2 * fs::file_size(temp / "packed.png"));
    const Messages logged = messages();
    ASSERT_EQ(logged.size(), 3u);
    EXPECT_EQ(logged[0].second, "Writing image with color space 'sRGB' to " + stored);
    EXPECT_EQ(logged[1].second, "Writing PNG image with compression level 0 to " + stored);
    EXPECT_THAT(logged[2].second, MatchesRegex("Writing image of 64x64 resolution to " + stored +
                                               " took: [0-9.e+-]+ms"));
    ASSERT_TRUE(ip::writeImage(image, temp / "default.png", -1));
    EXPECT_EQ(messages().size(), 2u);  // no level line

    // An unknown extension fails before any colour message, with OpenImageIO's reason; a missing
    // folder at the open, where the PNG writer gives none.
    EXPECT_FALSE(ip::writeImage(tagged(""), temp / "image.xyz"));
    expectOnly(err, "Couldn't write image " + (temp / "image.xyz").string() + ":\n", "xyz");
    EXPECT_FALSE(ip::writeImage(tagged("sRGB"), temp / "no folder/image.png"));
    EXPECT_EQ(messages().back(),
              std::pair(err, "Couldn't write image " + (temp / "no folder/image.png").string() +
                                 ":\n"));  // no timing line after it
}

TEST_F(Writing, MultiPartExrKeepsEachPartsChannelsTypeAndName) {
    const std::vector<ip::Image> images{tagged("linear", 3, OIIO::TypeHalf), tagged("", 1),
                                        tagged("sRGB", 4, OIIO::TypeDesc::UINT8)};
    const fs::path file = temp / "layers.exr";
    ASSERT_TRUE(ip::writeMultiPartEXR({"beauty", "depth", "mask"}, images, file));
    EXPECT_TRUE(log.records().empty());
    // OpenEXR keeps 8 bits as half.
    EXPECT_EQ(subimages(file),
              (Strings{"beauty 3 half 8x6 0/0", "depth 1 float 8x6 0/0", "mask 4 half 8x6 0/0"}));
    // The samples as they were, half and float; reading takes the first part only.
    const OIIO::ImageBuf parts[] = {ip::readImage(file).buffer,
                                    OIIO::ImageBuf(file.string(), 1, 0)};
    for (int part : {0, 1})
        EXPECT_EQ(OIIO::ImageBufAlgo::compare(parts[part], images[part].buffer, 0, 0).nfail, 0u);

    // Each failure has its err line; a writer's text is taken back off the image it went through.
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b"}, images, temp / "short.exr"));
    expectOnly(err, "layerNames (arg1) and images (arg2) must be of the same length");
    EXPECT_FALSE(fs::exists(temp / "short.exr"));
    const std::vector<ip::Image> sizes{tagged("linear"), tagged("linear", 3, OIIO::TypeFloat, 4)};
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b"}, sizes, temp / "sizes.exr"));
    EXPECT_EQ(log.records().at(0).message.rfind("fail to open OpenEXR exception", 0), 0u);
    log.clear();
    EXPECT_FALSE(sizes[0].buffer.has_error());
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b", "c"}, images, temp / "parts.png"));
    expectOnly(err, "fail to open for subimagepng does not support subimages or MIP levels");
    EXPECT_FALSE(images[1].buffer.has_error());
    // OpenEXR and GIF refuse an empty declaration themselves; the others would crash
    // OpenImageIO 2.4.7 and are refused beforehand.
    for (const auto& [name, reason] :
         {std::pair{"none.exr", "OpenEXR does not support 0 subimages."},
          {"none.gif", "gif does not support 0 subimages."},
          {"none.png", "png writer can't take 0 subimages"},
          {"none.TIF", "tiff writer can't take 0 subimages"}}) {
        EXPECT_FALSE(ip::writeMultiPartEXR({}, {}, temp / name));
        expectOnly(err, std::string("fail to open ") + reason);
        EXPECT_FALSE(fs::exists(temp / name)) << name;
    }
}

TEST_F(Writing, AnimatedGifWritesEveryFrameAsEightBitWithTheFrameRate) {
    std::vector<ip::Image> frames{tagged("sRGB"), tagged("linear", 3, OIIO::TypeDesc::UINT16),
                                  tagged("")};
    // A tiled source: the writer is given untiled scanlines.
    frames[1].buffer.specmod().tile_width = 4;
    frames[1].buffer.specmod().tile_height = 4;
    ASSERT_TRUE(ip::writeAnimatedGif(frames, temp / "anim.gif", 12.5f));
    EXPECT_TRUE(ip::writeAnimatedGif({}, temp / "empty.gif", 10.0f));
    EXPECT_TRUE(log.records().empty());
    // GIF stores a delay of 8 hundredths of a second: 100/8 frames per second; and reads RGBA.
    EXPECT_EQ(subimages(temp / "anim.gif"), Strings(3, " 4 uint8 8x6 100/8"));

    // A writer that takes one frame only: the refusal is left on the frame, unlogged.
    EXPECT_FALSE(ip::writeAnimatedGif(frames, temp / "still.png", 10.0f));
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(frames[1].buffer.geterror(), "png does not support subimages or MIP levels");
    EXPECT_FALSE(frames[0].buffer.has_error() || frames[2].buffer.has_error());
    EXPECT_EQ(subimages(temp / "still.png").size(), 1u);
    // A larger frame would overrun OpenImageIO 2.4.7's GIF writer, a smaller one come out
    // reshaped: refused unlogged, with the frames before it in the file and the reason on it.
    for (const auto& [width, height, index] : {std::tuple{65, 64, 1}, {256, 256, 2}, {64, 32, 1}}) {
        std::vector<ip::Image> sized(index + 2, makeGradient(64, 64, 3));
        sized[index] = makeGradient(width, height, 3);
        EXPECT_FALSE(ip::writeAnimatedGif(sized, temp / "sized.gif", 10.0f));
        EXPECT_TRUE(log.records().empty());
        EXPECT_EQ(subimages(temp / "sized.gif").size(), size_t(index));
        EXPECT_EQ(sized[index].buffer.geterror(),
                  fmt::format("gif writer can't take a {}x{} frame after a 64x64 first frame",
                              width, height));
        EXPECT_FALSE(sized[index + 1].buffer.has_error());
    }
    // The frame size guard is the GIF writer's only: others keep frames of different sizes.
    ASSERT_TRUE(ip::writeAnimatedGif({tagged(""), tagged("", 3, OIIO::TypeFloat, 4, 3)},
                                     temp / "pages.tif", 10.0f));
    EXPECT_NE(subimages(temp / "pages.tif").at(1).find(" 4x3 "), std::string::npos);
}

TEST_F(Writing, MetadataTravelsAsTypedValuesThroughAFile) {
    ip::Image image = makeGradient(4, 3, 3);
    // OpenEXR's reader states "Linear" whatever was written; it arrives as a string.
    const ip::MetadataMap written{{"vorel:frame", 42},
                                  {"vorel:exposure", 1.5f},
                                  {"vorel:artist", "Ada"},
                                  {"oiio:ColorSpace", "Linear"}};
    ASSERT_TRUE(ip::addMetadataToImage(image, written));
    EXPECT_EQ(ip::getColorSpace(image), "Linear");  // without setColorSpace's warning
    EXPECT_TRUE(log.records().empty());
    writeWithOIIO(image.buffer, temp / "meta.exr");
    const ip::MetadataMap read = ip::getMetadataFromImage(ip::readImage(temp / "meta.exr"));
    for (const auto& [name, value] : written)
        EXPECT_EQ(read.at(name), value) << name;
    expectNoWarnings();
    // Arrays become vectors, other types an empty string; vectors don't go back.
    ip::Image other = makeGradient(2, 2, 1);
    const int triple[3] = {7, -8, 9};
    const float single = 0.25f;
    const double ratio = 2.5;
    OIIO::ImageSpec& spec = other.buffer.specmod();
    spec.attribute("vorel:triple", OIIO::TypeDesc(OIIO::TypeDesc::INT32, 3), triple);
    spec.attribute("vorel:single", OIIO::TypeDesc(OIIO::TypeDesc::FLOAT, 1), &single);
    spec.attribute("vorel:ratio", OIIO::TypeDesc::DOUBLE, &ratio);
    const ip::MetadataMap metadata = ip::getMetadataFromImage(other);
    expectOnly(warn, "Unsupported OIIO metadata value type");
    EXPECT_EQ(metadata, (ip::MetadataMap{{"vorel:triple", std::vector<int>{7, -8, 9}},
                                         {"vorel:single", std::vector<float>{0.25f}},
                                         {"vorel:ratio", std::string()}}));
    EXPECT_FALSE(ip::addMetadataToImage(other, metadata));
    expectOnly(err, "Unsupported metadata value type");
}

}  // namespace
