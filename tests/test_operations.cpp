// Whole-image operations, normalize and the ID images: values on small images, and for every
// failure the empty Image (or false) with its one log line.

#include <cstdint>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using namespace vorel::test;
using spdlog::level::debug;
using spdlog::level::err;
using spdlog::level::warn;
using Floats = std::vector<float>;
using T = OIIO::TypeDesc;
using ::testing::FloatNear;
using ::testing::Pointwise;

namespace {

/// A width x height image of `channels` channels of T holding `values`, with one property.
template <typename V = float>
ip::Image imageOf(int width, int height, int channels, const std::vector<V>& values) {
    const T format(OIIO::BaseTypeFromC<V>::value);
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(width, height, channels, format));
    image.buffer.set_pixels(image.buffer.roi(), format, values.data());
    image.properties = {{"shot", "010"}};
    return image;
}

ip::Image flatten(ip::Image image) {
    ip::compositeOverBackgroundColor(image, {0, 0, 1, 1});
    return image;
}

class Operations : public LibraryTest {};

TEST_F(Operations, EachFailureGivesTheEmptyImageAndItsOwnErrLine) {
    const ip::Image none, rgb = imageOf(2, 1, 3, Floats(6, 0.5f)), rgba = makeGradient(1, 1, 4);
    const OIIO::ROI roi(0, 2, 0, 2);
    const std::vector<int> order{2, 0};
    const std::string range = "Normalize fails: Channel index out of range:\n";
    const std::pair<std::function<ip::Image()>, std::string> cases[] = {
        {[&] { return ip::cut(none, roi); }, "Crop operation failed:\n"},
        {[&] { return ip::fit(none, roi); }, "Fit operation failed:\n"},
        {[&] { return ip::resize(rgb, OIIO::ROI(0, 0, 0, 0)); }, "Resize operation failed:\n"},
        {[&] { return ip::rotate(none, 0.0f, false); }, "Rotate operation failed:\n"},
        {[&] { return ip::over(rgb, rgba); }, "Over compositing failed:\n"},
        {[&] { return flatten(rgb); }, "Over compositing failed:\n"},  // no alpha: emptied
        {[&] { return ip::createSolidColorImage({1}, {}); }, "Create solid operation failed:\n"},
        // Only the mode's own line: OpenImageIO is not called.
        {[&] { return ip::preMultiply(none, ip::PreMultMode(3)); }, "Invalid PreMultMode"},
        {[&] { return ip::preMultiply(none, {}); }, "Premultiply operation failed:\n"},
        {[&] { return ip::colorConvert(rgb, "linear", "none"); },
         "colorConvert operation failed:\n"},
        {[&] { return ip::shuffle(none, 2, order); }, "Shuffle operation failed:\n"},
        {[&] { return ip::channelAppend(none, none); }, "Channel append operation failed:\n"},
        {[&] { return ip::invert(none); }, "Invert operation failed:\n"},
        {[&] { return ip::invertChannel(rgba, "r"); }, "Given channel 'r' doesn't exist"},
        {[&] {
             return ip::normalize(rgba, 0, 1, {"R", "G", "Z"});
         },
         range + "Z, present channels : [R, G, B, A]"},
        // The default list starts with R, also where the caller named nothing.
        {[&] { return ip::normalize(imageOf(1, 1, 1, Floats{0}), 0, 1); },
         range + "R, present channels : [Y]"},
    };
    for (const auto& [call, message] : cases) {
        const ip::Image result = call();
        EXPECT_TRUE(!result.buffer.initialized() && result.properties.empty()) << message;
        expectOnly(err, message);
    }
    ip::Image empty;
    EXPECT_FALSE(ip::paste(empty, 0, 0, none));
    expectOnly(err, "Paste operation failed:\n");
    EXPECT_FALSE(empty.buffer.has_error());
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
    EXPECT_EQ(ip::cut(source, rgb(2, 6, 1, 3)).properties, source.properties);
    ip::Image dst = imageOf(5, 4, 1, Floats(20, 0.0f));
    const ip::Image src = imageOf(2, 2, 1, Floats{1, 2, 3, 4});
    ASSERT_TRUE(ip::paste(dst, 3, 1, src));
    ASSERT_TRUE(ip::paste(dst, 0, 0, src, OIIO::ROI(0, 1, 0, 2)));  // left column only
    EXPECT_EQ(pixelsOf(dst), (Floats{1, 0, 0, 0, 0, 3, 0, 0, 1, 2, 0, 0, 0, 3, 4, 0, 0, 0, 0, 0}));
    expectNoWarnings();
}

TEST_F(Operations, CompositingAndAlpha) {
    const ip::Image fg = imageOf(2, 1, 4, Floats{0.4f, 0, 0, 0.5f, 0, 0, 0, 0});
    ip::Image bg = imageOf(2, 1, 4, Floats{0, 0.8f, 0, 1, 0, 0.8f, 0, 1});
    bg.properties.clear();  // the foreground's properties travel
    const ip::Image composite = ip::over(fg, bg);
    EXPECT_EQ(pixelsOf(composite), (Floats{0.4f, 0.4f, 0, 1, 0, 0.8f, 0, 1}));
    EXPECT_EQ(composite.properties, fg.properties);
    EXPECT_EQ(pixelsOf(flatten(fg)), (Floats{0.4f, 0, 0.5f, 1, 0, 0, 1, 1}));
    // Repremult keeps the colour where alpha is 0, premult clears it.
    const ip::Image straight =
        imageOf(2, 1, 4, Floats{0.8f, 0.4f, 0.2f, 0.5f, 0.3f, 0.3f, 0.3f, 0});
    const ip::Image premult = ip::preMultiply(straight, ip::PreMultMode::Premult);
    EXPECT_EQ(pixelsOf(premult), (Floats{0.4f, 0.2f, 0.1f, 0.5f, 0, 0, 0, 0}));
    EXPECT_EQ(pixelsOf(ip::preMultiply(premult, ip::PreMultMode::Unpremult)),
              (Floats{0.8f, 0.4f, 0.2f, 0.5f, 0, 0, 0, 0}));
    EXPECT_EQ(pixelsOf(ip::preMultiply(straight, ip::PreMultMode::Repremult)),
              (Floats{0.4f, 0.2f, 0.1f, 0.5f, 0.3f, 0.3f, 0.3f, 0}));
    ip::Image rgb = imageOf(1, 1, 3, Floats{0.1f, 0.2f, 0.3f});
    ASSERT_TRUE(ip::addAlphaChannel(rgb, 0.25f));
    EXPECT_EQ(rgb.buffer.spec().channelnames, (std::vector<std::string>{"R", "G", "B", "A"}));
    EXPECT_EQ(pixelsOf(rgb), (Floats{0.1f, 0.2f, 0.3f, 0.25f}));
    EXPECT_FALSE(ip::addAlphaChannel(rgb, 1.0f));  // has alpha: silent
    EXPECT_TRUE(log.records().empty());
    for (ip::Image image : {makeGradient(1, 1, 1), makeGradient(1, 1, 2)}) {
        EXPECT_FALSE(ip::addAlphaChannel(image, 1.0f));
        expectOnly(warn, fmt::format("Couldn't add alpha channel to image with {} channels",
                                     image.buffer.nchannels()));
    }
}

TEST_F(Operations, ColourAndChannels) {
    // The sRGB curve at 0.001 (on its linear part), 0.18, 0.5 and 1.
    const ip::Image linear = imageOf(4, 1, 1, Floats{0.001f, 0.18f, 0.5f, 1.0f});
    EXPECT_THAT(pixelsOf(ip::colorConvert(linear, "linear", "sRGB")),
                Pointwise(FloatNear(2e-4f), Floats{0.01292f, 0.46136f, 0.73536f, 1.0f}));
    const ip::Image rgba = imageOf(1, 1, 4, Floats{0.1f, 0.2f, 0.3f, 0.4f});
    EXPECT_EQ(pixelsOf(ip::shuffle(rgba, 2, std::vector{2, 0})), (Floats{0.3f, 0.1f}));
    const ip::Image appended = ip::channelAppend(rgba, makeGradient(1, 1, 1));
    EXPECT_EQ(pixelsOf(appended), (Floats{0.1f, 0.2f, 0.3f, 0.4f, 0.001f}));
    EXPECT_EQ(appended.properties, rgba.properties);  // the first image's
    EXPECT_EQ(pixelsOf(ip::invert(rgba)), (Floats{1 - 0.1f, 1 - 0.2f, 1 - 0.3f, 1 - 0.4f}));
    EXPECT_EQ(pixelsOf(ip::invert(rgba, OIIO::ROI(0, 1, 0, 1, 0, 1, 0, 3))).at(0), 1 - 0.1f);
    // invertChannel on every channel of RGBA, on a data window at (0, 0) and on a shifted one.
    for (const int x : {0, 5}) {
        ip::Image source = makeGradient(3, 2, 4, T::FLOAT, 0.03f);
        source.buffer.set_origin(x, -x);
        for (int channel = 0; channel < 4; ++channel) {
            const ip::Image result = ip::invertChannel(source, std::string(1, "RGBA"[channel]));
            EXPECT_EQ(result.buffer.roi(), source.buffer.roi());
            Floats expected = pixelsOf(source);
            for (size_t i = channel; i < expected.size(); i += 4)
                expected[i] = 1.0f - expected[i];
            EXPECT_EQ(pixelsOf(result), expected) << channel << " at x " << x;
        }
    }
    expectNoWarnings();
}

TEST_F(Operations, NormalizeOnTheFloatAndTheIntegerPath) {
    // R, G and B by default, over their one range onto [5, 2], in single precision with the
    // multiplication first; alpha stays.
    const auto remap = [](float v) { return (v - 0.2f) * (2.0f - 5.0f) / (0.9f - 0.2f) + 5.0f; };
    EXPECT_EQ(pixelsOf(ip::normalize(imageOf(1, 1, 4, Floats{0.55f, 0.9f, 0.2f, 0.3f}), 5, 2)),
              (Floats{remap(0.55f), remap(0.9f), remap(0.2f), 0.3f}));
    expectOnly(debug, "Normalizing float buffer with min : 0.2 max : 0.9");
    // An empty range: every chosen sample becomes NaN.
    EXPECT_TRUE(
        std::isnan(pixelsOf(ip::normalize(imageOf(2, 1, 1, Floats{3, 3}), 0, 1, {"Y"}))[1]));
    expectOnly(debug, "Normalizing float buffer with min : 3 max : 3");
    // Integer types on OpenImageIO's 0..1 scale, stored back as UINT8.
    const ip::Image bytes = imageOf<std::uint8_t>(3, 1, 1, {51, 102, 204});
    EXPECT_TRUE(sameImage(ip::normalize(bytes, 0, 1, {"Y"}).buffer,
                          imageOf<std::uint8_t>(3, 1, 1, {0, 85, 255}).buffer));
    const Floats scaled = pixelsOf(bytes);
    expectOnly(debug, fmt::format("Normalizing float buffer with min : {} max : {}", scaled[0],
                                  scaled[2]));
    // Scalar UINT32: the raw integers as floats (2^24 + 1 rounds to 2^24, 2^32 - 1 to 2^32).
    // Channel 0 is chosen, channel 1 is carried through float.
    const std::vector<std::uint32_t> raw{16777217u, 7u, 33554432u, 0u, 4294967295u, 16777217u};
    const ip::Image result = ip::normalize(imageOf(3, 1, 2, raw), 0, 1, {"R"});
    expectOnly(debug, "Normalizing int buffer with min : 16777216 max : 4294967300");
    std::vector<std::uint32_t> stored(6);
    result.buffer.get_pixels(result.buffer.roi(), T::UINT32, stored.data());
    // Stored through OpenImageIO's float view of UINT32: 0..1 onto the whole range, clamped.
    EXPECT_EQ(stored,
              (std::vector<std::uint32_t>{0, 4294967295u, 16843010, 0, 4294967295u, 4294967295u}));
    // Pixels are addressed from (0, 0) whatever the data window: outside it they read as 0 and
    // are never written.
    ip::Image shifted = imageOf(3, 1, 2, std::vector<std::uint32_t>{10, 1, 20, 2, 30, 3});
    shifted.buffer.set_origin(2, 0);
    ip::normalize(shifted, 0, 1, {"R"})
        .buffer.get_pixels(shifted.buffer.roi(), T::UINT32, stored.data());
    EXPECT_EQ(stored, (std::vector<std::uint32_t>{4294967295u, 4294967295u, 0, 0, 0, 0}));
    expectOnly(debug, "Normalizing int buffer with min : 0 max : 10");
}

TEST_F(Operations, NormalizeEveryPixelTypeOnAShiftedWindowOnAllThreads) {
    // More rows than one thread's share; the chosen channels' joint range onto [5, -2].
    for (const T type :
         {T::UINT8, T::INT8, T::UINT16, T::INT16, T::INT32, T::HALF, T::FLOAT, T::DOUBLE}) {
        ip::Image image = makeGradient(301, 67, 4, type, 1e-5f);
        image.buffer.set_origin(3, -2);
        const ip::Image result = ip::normalize(image, 5, -2, {"A", "R", "A"});
        const auto stats = OIIO::ImageBufAlgo::computePixelStats(image.buffer);
        const float min = std::min(stats.min[0], stats.min[3]),
                    max = std::max(stats.max[0], stats.max[3]);
        expectOnly(debug, fmt::format("Normalizing float buffer with min : {} max : {}", min, max));
        OIIO::ImageBuf expected(image.buffer.spec());
        for (OIIO::ImageBuf::ConstIterator<float> in(expected); !in.done(); ++in) {
            float pixel[4];
            image.buffer.getpixel(in.x(), in.y(), pixel);
            for (const int c : {0, 3})
                pixel[c] = (pixel[c] - min) * (-2.0f - 5.0f) / (max - min) + 5.0f;
            expected.setpixel(in.x(), in.y(), pixel);
        }
        EXPECT_TRUE(sameImage(result.buffer, expected)) << type;
        EXPECT_EQ(result.properties, image.properties);
    }
}

TEST_F(Operations, IdImagesShiftIntoUnsignedSamplesAndGrowIntoMasks) {
    std::vector<std::int32_t> ids{-1, 0, 2147483647, -5, 1, 41, -2147483648, 7};
    ip::Image image = ip::createImageFromData(ids.data(), 2, 2, 2, T::INT32);
    ASSERT_TRUE(ip::convertIdImageToUint(image));
    std::vector<std::uint32_t> shifted(8);
    image.buffer.get_pixels(image.buffer.roi(), T::UINT32, shifted.data());
    EXPECT_EQ(shifted, (std::vector<std::uint32_t>{0, 1, 2147483648u, 0, 2, 42, 0, 8}));
    EXPECT_EQ(image.buffer.spec().format, T::UINT32);
    expectNoWarnings();

    std::vector<std::int32_t> single(5 * 4, -1);
    single[5 + 1] = 0;  // (1, 1): ID 0 counts
    ip::Image mask = ip::createImageFromData(single.data(), 5, 4, 1, T::INT32);
    mask.buffer.set_origin(3, 2);
    mask.buffer.specmod().attribute("oiio:ColorSpace", "Raw");
    ip::idImageToMask(mask);
    expectOnly(debug, "idImageToMask");
    // Four UINT8 channels from (0, 0), untagged; the 2 x 2 window grows the pixel into its right,
    // lower and lower-right neighbours, alpha too.
    OIIO::ImageBuf grown(OIIO::ImageSpec(5, 4, 4, T::UINT8));
    OIIO::ImageBufAlgo::fill(grown, {1, 1, 1, 1}, OIIO::ROI(1, 3, 1, 3));
    EXPECT_TRUE(sameImage(mask.buffer, grown));
}

TEST_F(Operations, IdRefusalsLeaveTheImageAsItWas) {
    const auto imageOfSpec = [](const OIIO::ImageSpec& spec) {
        ip::Image image;
        image.buffer.reset(spec);
        return image;
    };
    ip::Image converted = imageOfSpec({2, 2, 1, T::INT32});  // never shifted twice
    ASSERT_TRUE(ip::convertIdImageToUint(converted));
    const std::pair<ip::Image, std::string> cases[] = {
        {imageOfSpec({2, 2, 1, T::FLOAT}), "Can't convert non-ID image: float format"},
        {imageOfSpec({2, 2, 1, T(T::INT32, 2)}), "Can't convert non-ID image: int[2] format"},
        {converted, "Can't convert non-ID image: uint format"},
        {imageOfSpec({2, 2, 2, T::INT32}), ""}};  // convertible, but no mask's input
    for (const auto& [image, convertMessage] : cases) {
        ip::Image refused = image;
        if (!convertMessage.empty()) {
            EXPECT_FALSE(ip::convertIdImageToUint(refused));
            expectOnly(err, convertMessage);
        }
        ip::idImageToMask(refused);
        EXPECT_EQ(log.records().at(0).message, "idImageToMask");  // also when refusing
        expectOnly(err, "Unexpected format for idImage");
        EXPECT_TRUE(sameImage(refused.buffer, image.buffer)) << convertMessage;
    }
    const std::string nonLocal = "Can't modify image with non-local pixels";
    // A small buffer under a spec that claims far more, as specmod() allows: refused before a
    // sample is touched, with 2^64 samples and with (2^31 - 1)^2 pixels (an int product wraps).
    std::vector<std::int32_t> ids{-1, 0, 5, 7};
    ip::Image claiming;
    claiming.buffer.reset(OIIO::ImageSpec(2, 2, 1, T::INT32), ids.data());
    OIIO::ImageSpec& spec = claiming.buffer.specmod();
    spec.width = spec.height = 1 << 30;
    spec.nchannels = 16;
    EXPECT_FALSE(ip::convertIdImageToUint(claiming));
    expectOnly(err, nonLocal);
    spec.width = spec.height = 2147483647;
    spec.nchannels = 1;
    ip::idImageToMask(claiming);
    expectOnly(err, nonLocal);
    EXPECT_EQ(ids, (std::vector<std::int32_t>{-1, 0, 5, 7}));
}

}  // namespace
