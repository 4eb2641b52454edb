// Whole-image operations and normalize: numeric results on small images, and for every failure
// the empty Image (or false) with its one log line.

#include <cmath>
#include <cstdint>

#include <fmt/format.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using spdlog::level::debug;
using spdlog::level::warn;
using vorel::test::makeGradient;
using vorel::test::sameImage;
using Floats = std::vector<float>;

namespace {

/// A width x height image of `channels` channels of T holding `values`, pixel after pixel.
template <typename T = float>
ip::Image imageOf(int width, int height, int channels, const std::vector<T>& values) {
    const OIIO::TypeDesc format(OIIO::BaseTypeFromC<T>::value);
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(width, height, channels, format));
    image.buffer.set_pixels(image.buffer.roi(), format, values.data());
    image.properties = {{"shot", "010"}};
    return image;
}

/// Every sample of the data window as float, pixel after pixel.
Floats pixelsOf(const ip::Image& image) {
    Floats values(image.buffer.spec().image_pixels() * image.buffer.nchannels());
    image.buffer.get_pixels(image.buffer.roi(), OIIO::TypeDesc::FLOAT, values.data());
    return values;
}

class Operations : public vorel::test::LibraryTest {
protected:
    /// The empty Image, without properties, and its err line as below.
    void expectFailure(const ip::Image& result, const std::string& message) {
        EXPECT_TRUE(result.properties.empty());
        expectFailure(result.buffer.initialized(), message);
    }
    /// `false` and exactly one line, at err: `message`, or `message` followed by OpenImageIO's
    /// (non-empty) reason when it ends in a line break.
    void expectFailure(bool result, const std::string& message) {
        EXPECT_FALSE(result);
        const auto records = log.records();
        ASSERT_EQ(records.size(), 1u) << message;
        EXPECT_EQ(records[0].level, spdlog::level::err);
        const std::string& line = records[0].message;
        const bool reason = message.back() == '\n';
        EXPECT_EQ(line.substr(0, reason ? message.size() : line.size()), message);
        EXPECT_EQ(line.size() > message.size(), reason) << line;
        log.clear();
    }
};

TEST_F(Operations, EachFailureGivesItsOwnErrLine) {
    const ip::Image none;
    const ip::Image rgb = imageOf(2, 1, 3, Floats(6, 0.5f));
    const ip::Image rgba = makeGradient(1, 1, 4);
    expectFailure(ip::cut(none, OIIO::ROI(0, 2, 0, 2)), "Crop operation failed:\n");
    expectFailure(ip::fit(none, OIIO::ROI(0, 2, 0, 2)), "Fit operation failed:\n");
    expectFailure(ip::resize(rgb, OIIO::ROI(0, 0, 0, 0)), "Resize operation failed:\n");
    expectFailure(ip::rotate(none, 0.0f, false), "Rotate operation failed:\n");
    ip::Image empty;
    expectFailure(ip::paste(empty, 0, 0, none), "Paste operation failed:\n");
    EXPECT_FALSE(empty.buffer.has_error());  // the message was taken off the buffer
    expectFailure(ip::over(rgb, rgba), "Over compositing failed:\n");
    ip::Image flattened = rgb;  // no alpha: emptied, properties and all
    ip::compositeOverBackgroundColor(flattened, {0, 0, 1, 1});
    expectFailure(flattened, "Over compositing failed:\n");
    expectFailure(ip::createSolidColorImage({1}, {}), "Create solid operation failed:\n");
    // Only the mode's own line: OpenImageIO is not called on the empty image.
    expectFailure(ip::preMultiply(none, ip::PreMultMode(3)), "Invalid PreMultMode");
    expectFailure(ip::preMultiply(none, {}), "Premultiply operation failed:\n");
    expectFailure(ip::colorConvert(rgb, "linear", "none"), "colorConvert operation failed:\n");
    expectFailure(ip::shuffle(none, 2, std::vector{2, 0}), "Shuffle operation failed:\n");
    expectFailure(ip::channelAppend(none, none), "Channel append operation failed:\n");
    expectFailure(ip::invert(none), "Invert operation failed:\n");
    expectFailure(ip::invertChannel(rgba, "r"), "Given channel 'r' doesn't exist");
    const std::string range = "Normalize fails: Channel index out of range:\n";
    expectFailure(ip::normalize(rgba, 0, 1, {"R", "G", "Z"}),
                  range + "Z, present channels : [R, G, B, A]");
    // The default list starts with R, also where the caller named nothing.
    expectFailure(ip::normalize(imageOf(1, 1, 1, {0}), 0, 1), range + "R, present channels : [Y]");
}

TEST_F(Operations, GeometryAndPaste) {
    const ip::Image source = makeGradient(8, 4, 3);
    const auto rgb = [](int x0, int x1, int y0, int y1) {
        return OIIO::ROI(x0, x1, y0, y1, 0, 1, 0, 3);
    };
    EXPECT_EQ(ip::cut(source, rgb(2, 6, 1, 3)).buffer.roi(), rgb(0, 4, 0, 2));  // origin to 0,0
    EXPECT_EQ(ip::resize(source, rgb(0, 16, 0, 2)).buffer.roi(), rgb(0, 16, 0, 2));
    // 8 x 4 into 4 x 4: scaled to 4 x 2 and letterboxed by its display window.
    EXPECT_EQ(ip::fit(source, rgb(0, 4, 0, 4)).buffer.roi(), rgb(0, 4, 1, 3));
    EXPECT_EQ(ip::rotate(source, float(M_PI / 2), true).buffer.roi(), rgb(2, 6, -2, 6));
    EXPECT_EQ(ip::rotate(source, float(M_PI / 2), false).buffer.roi(), source.buffer.roi());

    ip::Image dst = imageOf(5, 4, 1, Floats(20, 0.0f));
    const ip::Image src = imageOf(2, 2, 1, {1, 2, 3, 4});
    ASSERT_TRUE(ip::paste(dst, 3, 1, src));
    ASSERT_TRUE(ip::paste(dst, 0, 0, src, OIIO::ROI(0, 1, 0, 2)));  // left column only
    EXPECT_EQ(pixelsOf(dst), (Floats{1, 0, 0, 0, 0, 3, 0, 0, 1, 2, 0, 0, 0, 3, 4, 0, 0, 0, 0, 0}));
    expectNoWarnings();
}

TEST_F(Operations, CompositingAndAlpha) {
    const ip::Image fg = imageOf(2, 1, 4, {0.4f, 0, 0, 0.5f, 0, 0, 0, 0});
    ip::Image bg = imageOf(2, 1, 4, {0, 0.8f, 0, 1, 0, 0.8f, 0, 1});
    bg.properties.clear();  // the foreground's properties travel
    const ip::Image composite = ip::over(fg, bg);
    EXPECT_EQ(pixelsOf(composite), (Floats{0.4f, 0.4f, 0, 1, 0, 0.8f, 0, 1}));
    EXPECT_EQ(composite.properties, fg.properties);
    ip::Image flattened = fg;
    ip::compositeOverBackgroundColor(flattened, {0, 0, 1, 1});
    EXPECT_EQ(pixelsOf(flattened), (Floats{0.4f, 0, 0.5f, 1, 0, 0, 1, 1}));

    // Repremult keeps the colour where alpha is 0, premult clears it.
    const ip::Image straight = imageOf(2, 1, 4, {0.8f, 0.4f, 0.2f, 0.5f, 0.3f, 0.3f, 0.3f, 0});
    const ip::Image premult = ip::preMultiply(straight, ip::PreMultMode::Premult);
    EXPECT_EQ(pixelsOf(premult), (Floats{0.4f, 0.2f, 0.1f, 0.5f, 0, 0, 0, 0}));
    EXPECT_EQ(pixelsOf(ip::preMultiply(premult, ip::PreMultMode::Unpremult)),
              (Floats{0.8f, 0.4f, 0.2f, 0.5f, 0, 0, 0, 0}));
    EXPECT_EQ(pixelsOf(ip::preMultiply(straight, ip::PreMultMode::Repremult)),
              (Floats{0.4f, 0.2f, 0.1f, 0.5f, 0.3f, 0.3f, 0.3f, 0}));

    ip::Image rgb = imageOf(1, 1, 3, {0.1f, 0.2f, 0.3f});
    ASSERT_TRUE(ip::addAlphaChannel(rgb, 0.25f));
    EXPECT_EQ(rgb.buffer.spec().channelnames, (std::vector<std::string>{"R", "G", "B", "A"}));
    EXPECT_EQ(pixelsOf(rgb), (Floats{0.1f, 0.2f, 0.3f, 0.25f}));
    EXPECT_FALSE(ip::addAlphaChannel(rgb, 1.0f));  // has alpha: silent
    EXPECT_TRUE(log.records().empty());
    ip::Image unmarked = imageOf(1, 1, 4, {1, 1, 1, 1});
    unmarked.buffer.specmod().alpha_channel = -1;
    for (ip::Image image : {unmarked, makeGradient(1, 1, 1), makeGradient(1, 1, 2)}) {
        const std::string channels = std::to_string(image.buffer.nchannels());
        EXPECT_FALSE(ip::addAlphaChannel(image, 1.0f));
        expectOnlyMessage(warn,
                          "Couldn't add alpha channel to image with " + channels + " channels");
        log.clear();
    }
}

TEST_F(Operations, ColourAndChannels) {
    const Floats linear{0.001f, 0.18f, 0.5f, 1.0f};
    const ip::Image sRGB = ip::colorConvert(imageOf(4, 1, 1, linear), "linear", "sRGB");
    for (int x = 0; x < 4; ++x) {
        const float v = linear[x];
        const float curve = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1 / 2.4f) - 0.055f;
        EXPECT_NEAR(sRGB.buffer.getchannel(x, 0, 0, 0), curve, 2e-4) << v;
    }
    const ip::Image rgba = imageOf(1, 1, 4, {0.1f, 0.2f, 0.3f, 0.4f});
    EXPECT_EQ(pixelsOf(ip::shuffle(rgba, 2, std::vector{2, 0})), (Floats{0.3f, 0.1f}));
    // The first image's properties travel; the second has none.
    const ip::Image appended = ip::channelAppend(rgba, makeGradient(1, 1, 1));
    EXPECT_EQ(pixelsOf(appended), (Floats{0.1f, 0.2f, 0.3f, 0.4f, 0.001f}));
    EXPECT_EQ(appended.properties, rgba.properties);
    EXPECT_EQ(pixelsOf(ip::invert(rgba)), (Floats{1 - 0.1f, 1 - 0.2f, 1 - 0.3f, 1 - 0.4f}));
    EXPECT_EQ(pixelsOf(ip::invert(rgba, OIIO::ROI(0, 1, 0, 1, 0, 1, 0, 3))).at(0), 1 - 0.1f);

    // invertChannel on every channel of RGBA, on a data window at (0, 0) and on a shifted one.
    for (const int x : {0, 5}) {
        ip::Image source = makeGradient(3, 2, 4, OIIO::TypeDesc::FLOAT, 0.03f);
        source.buffer.set_origin(x, -x);
        for (int channel = 0; channel < 4; ++channel) {
            SCOPED_TRACE(std::to_string(channel) + " at x " + std::to_string(x));
            const ip::Image result = ip::invertChannel(source, std::string(1, "RGBA"[channel]));
            EXPECT_EQ(result.buffer.roi(), source.buffer.roi());
            Floats expected = pixelsOf(source);
            for (size_t i = channel; i < expected.size(); i += 4) {
                expected[i] = 1.0f - expected[i];
            }
            EXPECT_EQ(pixelsOf(result), expected);
        }
    }
    expectNoWarnings();
}

TEST_F(Operations, NormalizeByTheFloatAndTheIntegerPath) {
    // R, G and B by default, over their one range onto [5, 2], in single precision with the
    // multiplication first; alpha stays.
    const auto remap = [](float v) { return (v - 0.2f) * (2.0f - 5.0f) / (0.9f - 0.2f) + 5.0f; };
    const ip::Image rgba = imageOf(1, 1, 4, {0.55f, 0.9f, 0.2f, 0.3f});
    EXPECT_EQ(pixelsOf(ip::normalize(rgba, 5, 2)),
              (Floats{remap(0.55f), remap(0.9f), remap(0.2f), 0.3f}));
    expectOnlyMessage(debug, "Normalizing float buffer with min : 0.2 max : 0.9");
    log.clear();

    // Integer types on the float path: on OpenImageIO's 0..1 scale, and stored back as UINT8.
    const ip::Image bytes = imageOf<std::uint8_t>(3, 1, 1, {51, 102, 204});
    EXPECT_TRUE(sameImage(ip::normalize(bytes, 0, 1, {"Y"}).buffer,
                          imageOf<std::uint8_t>(3, 1, 1, {0, 85, 255}).buffer));
    const Floats scaled = pixelsOf(bytes);
    expectOnlyMessage(debug, fmt::format("Normalizing float buffer with min : {} max : {}",
                                         scaled[0], scaled[2]));
    log.clear();

    // Scalar UINT32: the raw integers as floats (2^24 + 1 rounds to 2^24, 2^32 - 1 to 2^32).
    // Channel 0 is chosen, channel 1 is carried through float and setpixel.
    const std::vector<std::uint32_t> raw{16777217u, 7u, 33554432u, 0u, 4294967295u, 16777216u};
    const ip::Image result = ip::normalize(imageOf(3, 1, 2, raw), 0, 1, {"R"});
    const float min = 16777216.0f, max = 4294967296.0f;
    expectOnlyMessage(debug,
                      fmt::format("Normalizing int buffer with min : {} max : {}", min, max));
    OIIO::ImageBuf floats(OIIO::ImageSpec(3, 1, 2, OIIO::TypeDesc::UINT32));
    for (int x = 0; x < 3; ++x) {
        const float pixel[] = {(float(raw[2 * x]) - min) / (max - min), float(raw[2 * x + 1])};
        floats.setpixel(x, 0, 0, pixel, 2);
    }
    EXPECT_TRUE(sameImage(result.buffer, floats));
    EXPECT_EQ(ip::getPixelUIntValue(result, 2, 0, 0, 0), 4294967295u);
}

}  // namespace
