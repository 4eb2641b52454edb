// The colour policy by extension and the three writers, proven on real files that are read back
// through OpenImageIO's ImageInput.

#include <cctype>
#include <utility>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace fs = std::filesystem;
namespace ip = vorel::usd::image_processing;
using spdlog::level::debug;
using spdlog::level::err;
using spdlog::level::warn;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

const std::string kLinearWarning =
    "Converting to linear space, this is not normally recommended and could result in loss of "
    "information.  It would be better  to keep everything in linear space before exporting";

/// The ImageSpec of every subimage of `file`, as a reader of our own sees them.
std::vector<OIIO::ImageSpec> subimages(const fs::path& file) {
    std::vector<OIIO::ImageSpec> specs;
    const auto in = OIIO::ImageInput::open(file.string());
    for (int i = 0; in && in->seek_subimage(i, 0); ++i) {
        specs.push_back(in->spec());
    }
    return specs;
}

ip::Image tagged(const std::string& colorSpace, int channels = 3,
                 OIIO::TypeDesc format = OIIO::TypeDesc::FLOAT, int width = 8, int height = 6) {
    ip::Image image = makeGradient(width, height, channels, format);
    image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
    image.properties["owner"] = "caller";
    return image;
}

::testing::AssertionResult unchanged(const ip::Image& before, const ip::Image& after) {
    if (before.properties != after.properties) {
        return ::testing::AssertionFailure() << "properties changed";
    }
    return sameImage(before.buffer, after.buffer);
}

class Writing : public LibraryTest {
protected:
    std::vector<std::pair<spdlog::level::level_enum, std::string>> messages() {
        std::vector<std::pair<spdlog::level::level_enum, std::string>> all;
        for (const auto& record : log.records()) {
            all.emplace_back(record.level, record.message);
        }
        return all;
    }
};

TEST_F(Writing, ColorConvertByFormatFollowsTheExtensionPolicy) {
    using Messages = std::vector<std::pair<spdlog::level::level_enum, std::string>>;
    struct Case {
        const char* file;
        const char* colorSpace;
        bool converted;
        const char* tagAfter;
        Messages expected;
    };
    const std::string none = "No color conversion needed for extension ";
    const Case cases[] = {
        {"a.JPEG",
         "linear",
         true,
         "sRGB",
         {{debug, "Converted image from 'linear' to 'sRGB' for extension '.jpeg'"}}},
        {"a.b.Gif",
         "srgb",
         true,
         "sRGB",
         {{debug, "Converted image from 'srgb' to 'sRGB' for extension '.gif'"}}},
        {"a.Tiff",
         "sRGB",
         true,
         "linear",
         {{debug, "Converted image from 'sRGB' to 'linear' for extension '.tiff'"},
          {warn, kLinearWarning}}},
        {"a.EXR",
         "Rec709",
         true,
         "linear",
         {{debug, "Converted image from 'Rec709' to 'linear' for extension '.exr'"},
          {warn, kLinearWarning}}},
        {"a.PNG", "sRGB", false, "sRGB", {{debug, none + "'.png'"}}},
        {"a.exr", "linear", false, "linear", {{debug, none + "'.exr'"}}},
        {"a.xyz", "linear", false, "linear", {{debug, none + "'.xyz'"}}},
        {"noextension", "sRGB", false, "sRGB", {{debug, none + "''"}}},
        {".exr", "sRGB", false, "sRGB", {{debug, none + "''"}}},
        {"a.xyz",
         "",
         false,
         "",
         {{warn, "Image has no color space set and is unknown, no conversions will be done"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " from '" + c.colorSpace + "'");
        log.clear();
        const ip::Image original = tagged(c.colorSpace);
        ip::Image image = original;
        EXPECT_EQ(ip::colorConvertByFormat(image, temp / c.file), c.converted);
        EXPECT_EQ(messages(), c.expected);
        EXPECT_EQ(ip::getColorSpace(image), c.tagAfter);
        EXPECT_EQ(image.properties, original.properties);
        if (!c.converted) {
            EXPECT_TRUE(unchanged(original, image));
        }
    }
    EXPECT_TRUE(fs::is_empty(temp.path()));

    // The pixels are really converted: linear 0.5 is sRGB 0.7354.
    ip::Image grey = tagged("linear");
    grey.buffer.setpixel(0, 0, std::vector<float>{0.5f, 0.5f, 0.5f}.data());
    ASSERT_TRUE(ip::colorConvertByFormat(grey, "grey.jpg"));
    EXPECT_NEAR(ip::getPixelValue(grey, 0, 0, 0, 1), 0.7354f, 1e-3f);

    // A conversion that fails still counts as run, and leaves the empty Image behind.
    log.clear();
    ip::Image unknown = tagged("unknown");
    EXPECT_TRUE(ip::colorConvertByFormat(unknown, "a.jpg"));
    EXPECT_FALSE(unknown.buffer.initialized());
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, err);
    EXPECT_EQ(records[0].message.rfind("colorConvert operation failed:\n", 0), 0u);
    EXPECT_EQ(records[1].message, "Converted image from 'unknown' to 'sRGB' for extension '.jpg'");
}

TEST_F(Writing, WritesEveryPolicyExtensionInAnyCase) {
    for (std::string extension :
         {".png", ".jpg", ".jpeg", ".bmp", ".gif", ".webp", ".exr", ".tif", ".tiff"}) {
        std::string upper = extension;
        std::string mixed = extension;
        for (char& ch : upper) {
            ch = static_cast<char>(std::toupper(ch));
        }
        mixed[1] = upper[1];
        for (const std::string& variant : {extension, upper, mixed}) {
            SCOPED_TRACE(variant);
            log.clear();
            const fs::path file = temp / ("image" + variant);
            ip::Image image = tagged("linear");
            ip::colorConvertByFormat(image, file);
            expectNoWarnings();
            log.clear();
            const ip::Image before = image;
            ASSERT_TRUE(ip::writeImage(image, file, 6));
            expectNoWarnings();
            EXPECT_TRUE(unchanged(before, image));
            const auto records = log.records();
            ASSERT_GE(records.size(), 2u);
            EXPECT_EQ(records[0].message, "Writing image with color space '" +
                                              ip::getColorSpace(image) + "' to " + file.string());
            // Only PNG, in whatever case, gets the level.
            EXPECT_EQ(records.size() == 3, extension == ".png");
            const std::string timing = records.back().message;
            const std::string start =
                "Writing image of 8x6 resolution to " + file.string() + " took: ";
            EXPECT_EQ(timing.rfind(start, 0), 0u) << timing;
            EXPECT_GT(std::stod(timing.substr(start.size())), 0.0);
            EXPECT_EQ(timing.substr(timing.size() - 2), "ms");

            const auto specs = subimages(file);
            ASSERT_EQ(specs.size(), 1u);
            EXPECT_EQ(specs[0].width, 8);
            EXPECT_EQ(specs[0].height, 6);
            // The GIF reader always gives RGBA.
            EXPECT_EQ(specs[0].nchannels, extension == ".gif" ? 4 : 3);
        }
    }
    // Float samples reach the float formats exactly.
    for (const char* name : {"image.exr", "image.tif"}) {
        const ip::Image read = ip::readImage(temp / name);
        EXPECT_EQ(OIIO::ImageBufAlgo::compare(read.buffer, tagged("linear").buffer, 0, 0).nfail, 0u)
            << name;
    }
}

TEST_F(Writing, ReportsColourMismatchesButWritesAllTheSame) {
    struct Case {
        const char* file;
        const char* colorSpace;
        spdlog::level::level_enum level;
        std::string message;
    };
    const Case cases[] = {
        {"a.jpg", "linear", err,
         "Image with color space 'linear' cannot be written to '.jpg' extension, which requires "
         "sRGB color space. Please convert the image to sRGB before writing."},
        {"a.Exr", "sRGB", err,
         "Image with color space 'sRGB' cannot be written to '.exr' extension, which requires "
         "linear color space. Please convert the image to linear before writing."},
        {"b.jpg", "", warn,
         "Image has no color space set, unable to verify the correct color space is used for "
         "writing to disk for the specified extension"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        log.clear();
        EXPECT_TRUE(ip::writeImage(tagged(c.colorSpace), temp / c.file));
        expectOnlyMessage(c.level, c.message);
        EXPECT_EQ(subimages(temp / c.file).size(), 1u);
    }
    EXPECT_EQ(log.records()[1].message,
              "Writing image with color space '' to " + (temp / "b.jpg").string());
    // Lenient extensions are never reported.
    log.clear();
    for (const char* file : {"c.png", "c.tiff", "c.TIF"}) {
        EXPECT_TRUE(ip::writeImage(tagged("Rec709"), temp / file));
    }
    expectNoWarnings();
}

TEST_F(Writing, SetsThePngCompressionLevelOnlyForPngAndLevelsOfZeroOrMore) {
    const ip::Image image = tagged("sRGB", 3, OIIO::TypeDesc::UINT8, 64, 64);
    const auto levelMessages = [&] {
        std::vector<std::string> found;
        for (const auto& record : log.records()) {
            if (record.message.rfind("Writing PNG image with compression level ", 0) == 0) {
                found.push_back(record.message);
            }
        }
        log.clear();
        return found;
    };
    ASSERT_TRUE(ip::writeImage(image, temp / "stored.PNG", 0));
    EXPECT_EQ(levelMessages(),
              std::vector<std::string>{"Writing PNG image with compression level 0 to " +
                                       (temp / "stored.PNG").string()});
    ASSERT_TRUE(ip::writeImage(image, temp / "packed.png", 9));
    EXPECT_EQ(levelMessages().size(), 1u);
    // The level reaches the PNG writer: stored is far larger than packed.
    EXPECT_GT(fs::file_size(temp / "stored.PNG"), 2 * fs::file_size(temp / "packed.png"));
    ASSERT_TRUE(ip::writeImage(image, temp / "default.png", -1));
    ASSERT_TRUE(ip::writeImage(image, temp / "photo.jpg", 5));
    EXPECT_TRUE(levelMessages().empty());
    EXPECT_FALSE(image.buffer.spec().find_attribute("png:compressionLevel"));
}

TEST_F(Writing, WriteImageFailsWithOneLineAndNoColourMessage) {
    const ip::Image image = tagged("");
    const fs::path unknown = temp / "image.xyz";
    EXPECT_FALSE(ip::writeImage(image, unknown));
    ASSERT_EQ(log.records().size(), 1u);  // no colour message and no timing either
    EXPECT_EQ(log.records()[0].level, err);
    EXPECT_EQ(log.records()[0].message.rfind("Couldn't write image " + unknown.string() + ":\n", 0),
              0u);
    EXPECT_NE(log.records()[0].message.find("format writer"), std::string::npos);

    log.clear();
    const fs::path missing = temp / "no folder" / "image.png";
    EXPECT_FALSE(ip::writeImage(tagged("sRGB"), missing));
    const auto failures = log.atLeast(err);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].message.rfind("Couldn't write image " + missing.string() + ":\n", 0), 0u);
    EXPECT_EQ(log.records().back().level, err);  // nothing after the failure
    EXPECT_FALSE(fs::exists(missing));
}

TEST_F(Writing, MultiPartExrKeepsEachPartsChannelsTypeAndName) {
    const std::vector<ip::Image> images{tagged("linear", 3, OIIO::TypeDesc::HALF),
                                        tagged("", 1, OIIO::TypeDesc::FLOAT),
                                        tagged("sRGB", 4, OIIO::TypeDesc::UINT8)};
    const std::vector<ip::Image> before = images;
    const fs::path file = temp / "layers.exr";
    ASSERT_TRUE(ip::writeMultiPartEXR({"beauty", "depth", "mask"}, images, file));
    EXPECT_TRUE(log.records().empty());
    for (size_t i = 0; i < images.size(); ++i) {
        EXPECT_TRUE(unchanged(before[i], images[i]));
    }
    const auto specs = subimages(file);
    ASSERT_EQ(specs.size(), 3u);
    const std::pair<int, OIIO::TypeDesc> expected[] = {
        {3, OIIO::TypeDesc::HALF}, {1, OIIO::TypeDesc::FLOAT}, {4, OIIO::TypeDesc::HALF}};
    const char* names[] = {"beauty", "depth", "mask"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(specs[i].width, 8);
        EXPECT_EQ(specs[i].height, 6);
        EXPECT_EQ(specs[i].nchannels, expected[i].first);
        EXPECT_EQ(specs[i].format, expected[i].second);
        EXPECT_EQ(specs[i].get_string_attribute("oiio:subimagename"), names[i]);
    }
    OIIO::ImageBuf depth(file.string(), 1, 0);
    EXPECT_EQ(OIIO::ImageBufAlgo::compare(depth, images[1].buffer, 0, 0).nfail, 0u);

    ASSERT_TRUE(ip::writeMultiPartEXR({"only"}, {images[0]}, temp / "one.exr"));
    EXPECT_EQ(subimages(temp / "one.exr").at(0).get_string_attribute("oiio:subimagename"), "only");
}

TEST_F(Writing, MultiPartExrFailures) {
    const std::vector<ip::Image> images{tagged("linear"), tagged("linear"), tagged("linear")};
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b"}, images, temp / "short.exr"));
    expectOnlyMessage(err, "layerNames (arg1) and images (arg2) must be of the same length");
    EXPECT_FALSE(fs::exists(temp / "short.exr"));

    log.clear();
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b", "c"}, images, temp / "parts.xyz"));
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].message.rfind("Couldn't write image ", 0), 0u);

    // OpenEXR refuses parts of different sizes when all are declared: relayed through image 0.
    log.clear();
    const std::vector<ip::Image> sizes{tagged("linear"),
                                       tagged("linear", 3, OIIO::TypeDesc::FLOAT, 4, 4)};
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b"}, sizes, temp / "sizes.exr"));
    ASSERT_EQ(log.atLeast(err).size(), 1u);
    EXPECT_EQ(log.records()[0].message.rfind("fail to open OpenEXR exception", 0), 0u);
    EXPECT_NE(log.records()[0].message.find("displayWindow"), std::string::npos);
    EXPECT_FALSE(sizes[0].buffer.has_error());

    // PNG takes the declaration but refuses the second subimage.
    log.clear();
    EXPECT_FALSE(ip::writeMultiPartEXR({"a", "b", "c"}, images, temp / "parts.png"));
    expectOnlyMessage(err, "fail to open for subimagepng does not support subimages or MIP levels");
    EXPECT_FALSE(images[1].buffer.has_error());

    // Writers that answer an empty declaration themselves say why.
    for (const auto& [file, reason] :
         {std::pair{"none.exr", "OpenEXR does not support 0 subimages."},
          std::pair{"none.gif", "gif does not support 0 subimages."}}) {
        log.clear();
        EXPECT_FALSE(ip::writeMultiPartEXR({}, {}, temp / file));
        expectOnlyMessage(err, std::string("fail to open ") + reason);
    }
}

TEST_F(Writing, AnimatedGifWritesEveryFrameAsEightBitWithTheFrameRate) {
    std::vector<ip::Image> frames{tagged("sRGB"), tagged("linear", 3, OIIO::TypeDesc::UINT16),
                                  tagged("")};
    // A tiled source: the writer is given untiled scanlines.
    frames[1].buffer.specmod().tile_width = 4;
    frames[1].buffer.specmod().tile_height = 4;
    const std::vector<ip::Image> before = frames;
    const fs::path file = temp / "anim.gif";
    ASSERT_TRUE(ip::writeAnimatedGif(frames, file, 12.5f));
    EXPECT_TRUE(log.records().empty());
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(unchanged(before[i], frames[i]));
    }
    const auto specs = subimages(file);
    ASSERT_EQ(specs.size(), 3u);
    for (const auto& spec : specs) {
        EXPECT_EQ(spec.width, 8);
        EXPECT_EQ(spec.height, 6);
        EXPECT_EQ(spec.format, OIIO::TypeDesc::UINT8);
        // GIF stores a delay of 8 hundredths of a second: 100/8 frames per second.
        const OIIO::ParamValue* fps = spec.find_attribute("FramesPerSecond");
        ASSERT_TRUE(fps);
        ASSERT_EQ(fps->type(), OIIO::TypeRational);
        EXPECT_EQ(static_cast<const int*>(fps->data())[0], 100);
        EXPECT_EQ(static_cast<const int*>(fps->data())[1], 8);
    }
}

TEST_F(Writing, AnimatedGifFailuresLeaveTheWritersMessageOnTheFrame) {
    EXPECT_TRUE(ip::writeAnimatedGif({}, temp / "empty.gif", 10.0f));
    EXPECT_TRUE(log.records().empty());

    EXPECT_FALSE(ip::writeAnimatedGif({}, temp / "empty.xyz", 10.0f));
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].message.rfind("Couldn't write image ", 0), 0u);

    // A writer that takes one frame only: the first is written, the second refused silently.
    log.clear();
    const std::vector<ip::Image> frames{tagged("sRGB"), tagged("sRGB"), tagged("sRGB")};
    EXPECT_FALSE(ip::writeAnimatedGif(frames, temp / "still.png", 10.0f));
    EXPECT_TRUE(log.records().empty());
    EXPECT_FALSE(frames[0].buffer.has_error());
    EXPECT_EQ(frames[1].buffer.geterror(), "png does not support subimages or MIP levels");
    EXPECT_FALSE(frames[2].buffer.has_error());
    EXPECT_EQ(subimages(temp / "still.png").size(), 1u);

    // The GIF writer refuses a frame with another channel count.
    const std::vector<ip::Image> channels{tagged("sRGB"), tagged("sRGB", 1)};
    EXPECT_FALSE(ip::writeAnimatedGif(channels, temp / "channels.gif", 10.0f));
    EXPECT_TRUE(log.records().empty());
    EXPECT_TRUE(channels[1].buffer.has_error());
}

}  // namespace
