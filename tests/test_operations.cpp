// Whole-image operations: numeric results on small images, the failure contract (empty Image or
// false with one err line), untouched sources and the properties that travel with results.

#include <cmath>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

const std::map<std::string, std::string> kProperties{{"shot", "010"}, {"take", "3"}};

/// A width x height image of `channels` FLOAT channels holding `values`, pixel after pixel.
ip::Image imageOf(int width, int height, int channels, const std::vector<float>& values) {
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(width, height, channels, OIIO::TypeDesc::FLOAT));
    image.buffer.set_pixels(image.buffer.roi(), OIIO::TypeDesc::FLOAT, values.data());
    image.properties = kProperties;
    return image;
}

float at(const ip::Image& image, int x, int y, int c) {
    return image.buffer.getchannel(x, y, 0, c);
}

class Operations : public LibraryTest {
protected:
    /// An empty result and one err line: `prefix` followed by OpenImageIO's (non-empty) text
    /// when the prefix ends in a line break, else exactly `prefix`.
    void expectFailure(const ip::Image& result, const std::string& prefix) {
        EXPECT_FALSE(result.buffer.initialized());
        EXPECT_TRUE(result.properties.empty());
        expectFailureLine(prefix);
    }
    void expectFailureLine(const std::string& prefix) {
        const auto records = log.records();
        ASSERT_EQ(records.size(), 1u) << prefix;
        EXPECT_EQ(records[0].level, spdlog::level::err);
        EXPECT_EQ(records[0].funcname, "vorel_usd_image_processing");
        if (prefix.back() == '\n') {
            EXPECT_EQ(records[0].message.rfind(prefix, 0), 0u) << records[0].message;
            EXPECT_GT(records[0].message.size(), prefix.size());
        } else {
            EXPECT_EQ(records[0].message, prefix);
        }
        log.clear();
    }
};

TEST_F(Operations, GeometryGivesTheExpectedExtentsAndLeavesTheSourceAlone) {
    ip::Image source = makeGradient(8, 4, 3);
    source.properties = kProperties;
    const ip::Image before = source;

    const ip::Image cut = ip::cut(source, OIIO::ROI(2, 6, 1, 3));
    EXPECT_EQ(cut.buffer.roi(), OIIO::ROI(0, 4, 0, 2, 0, 1, 0, 3));  // origin moved to 0,0
    EXPECT_EQ(at(cut, 1, 1, 2), at(source, 3, 2, 2));
    const ip::Image resized = ip::resize(source, OIIO::ROI(0, 16, 0, 2));
    EXPECT_EQ(resized.buffer.roi(), OIIO::ROI(0, 16, 0, 2, 0, 1, 0, 3));
    // 8 x 4 into 4 x 4: scaled to 4 x 2 and letterboxed by its display window.
    const ip::Image fitted = ip::fit(source, OIIO::ROI(0, 4, 0, 4));
    EXPECT_EQ(fitted.buffer.roi(), OIIO::ROI(0, 4, 1, 3, 0, 1, 0, 3));
    EXPECT_EQ(fitted.buffer.roi_full(), OIIO::ROI(0, 4, 0, 4, 0, 1, 0, 3));
    const ip::Image turned = ip::rotate(source, float(M_PI / 2), true);
    EXPECT_EQ(turned.buffer.roi(), OIIO::ROI(2, 6, -2, 6, 0, 1, 0, 3));
    const ip::Image kept = ip::rotate(source, float(M_PI / 2), false);
    EXPECT_EQ(kept.buffer.roi(), source.buffer.roi());
    for (const ip::Image* result : {&cut, &resized, &fitted, &turned, &kept}) {
        EXPECT_EQ(result->properties, kProperties);
    }
    EXPECT_TRUE(sameImage(source.buffer, before.buffer));
    EXPECT_EQ(source.properties, kProperties);
    expectNoWarnings();
}

TEST_F(Operations, GeometryFailuresGiveTheEmptyImageAndTheirOwnMessage) {
    ip::Image empty;
    empty.properties = kProperties;
    expectFailure(ip::cut(empty, OIIO::ROI(0, 2, 0, 2)), "Crop operation failed:\n");
    expectFailure(ip::fit(empty, OIIO::ROI(0, 2, 0, 2)), "Fit operation failed:\n");
    expectFailure(ip::rotate(empty, 0.0f, false), "Rotate operation failed:\n");
    ip::Image source = makeGradient(4, 4, 3);
    source.properties = kProperties;
    expectFailure(ip::resize(source, OIIO::ROI(0, 0, 0, 0)), "Resize operation failed:\n");
}

TEST_F(Operations, PastePutsTheRegionAtTheGivenPositionInPlace) {
    const ip::Image src = imageOf(2, 2, 1, {1, 2, 3, 4});
    ip::Image dst = imageOf(5, 4, 1, std::vector<float>(20, 0.0f));
    dst.properties = {{"dst", "kept"}};
    ASSERT_TRUE(ip::paste(dst, 3, 1, src));
    ASSERT_TRUE(ip::paste(dst, 0, 0, src, OIIO::ROI(0, 1, 0, 2)));  // left column only
    const std::vector<float> expected{1, 0, 0, 0, 0,                //
                                      3, 0, 0, 1, 2,                //
                                      0, 0, 0, 3, 4,                //
                                      0, 0, 0, 0, 0};
    std::vector<float> pixels(20);
    dst.buffer.get_pixels(dst.buffer.roi(), OIIO::TypeDesc::FLOAT, pixels.data());
    EXPECT_EQ(pixels, expected);
    EXPECT_EQ(dst.properties, (std::map<std::string, std::string>{{"dst", "kept"}}));
    expectNoWarnings();

    ip::Image empty;
    EXPECT_FALSE(ip::paste(empty, 0, 0, ip::Image()));
    expectFailureLine("Paste operation failed:\n");
    EXPECT_FALSE(empty.buffer.has_error());  // the message was taken off the buffer
}

TEST_F(Operations, OverAndCompositeOverBackgroundColor) {
    const ip::Image foreground = imageOf(2, 1, 4, {0.4f, 0, 0, 0.5f, 0, 0, 0, 0});
    ip::Image background = imageOf(2, 1, 4, {0, 0.8f, 0, 1, 0, 0.8f, 0, 1});
    background.properties = {{"background", "dropped"}};
    const ip::Image composite = ip::over(foreground, background);
    EXPECT_NEAR(at(composite, 0, 0, 0), 0.4f, 1e-6);
    EXPECT_NEAR(at(composite, 0, 0, 1), 0.4f, 1e-6);
    EXPECT_NEAR(at(composite, 0, 0, 3), 1.0f, 1e-6);
    EXPECT_NEAR(at(composite, 1, 0, 1), 0.8f, 1e-6);
    EXPECT_EQ(composite.properties, kProperties);

    ip::Image flattened = foreground;
    ip::compositeOverBackgroundColor(flattened, {0, 0, 1, 1});
    EXPECT_NEAR(at(flattened, 0, 0, 0), 0.4f, 1e-6);
    EXPECT_NEAR(at(flattened, 0, 0, 2), 0.5f, 1e-6);
    EXPECT_NEAR(at(flattened, 1, 0, 2), 1.0f, 1e-6);
    EXPECT_EQ(flattened.buffer.roi(), OIIO::ROI(0, 2, 0, 1, 0, 1, 0, 4));
    EXPECT_EQ(flattened.properties, kProperties);
    expectNoWarnings();

    // Without alpha the composite fails and the image is emptied, properties and all.
    ip::Image rgb = imageOf(2, 1, 3, std::vector<float>(6, 0.5f));
    ip::compositeOverBackgroundColor(rgb, {0, 0, 1, 1});
    expectFailure(rgb, "Over compositing failed:\n");
    expectFailure(ip::over(rgb, background), "Over compositing failed:\n");
}

TEST_F(Operations, CreateSolidColorImageFillsTheRegion) {
    const ip::Image solid =
        ip::createSolidColorImage({0.25f, 0.5f}, OIIO::ROI(1, 4, 0, 2, 0, 1, 0, 2));
    EXPECT_EQ(solid.buffer.roi(), OIIO::ROI(1, 4, 0, 2, 0, 1, 0, 2));
    const auto stats = OIIO::ImageBufAlgo::computePixelStats(solid.buffer);
    EXPECT_EQ(stats.min, (std::vector<float>{0.25f, 0.5f}));
    EXPECT_EQ(stats.max, (std::vector<float>{0.25f, 0.5f}));
    EXPECT_TRUE(solid.properties.empty());
    EXPECT_EQ(ip::getColorSpace(solid), "");
    expectNoWarnings();
    expectFailure(ip::createSolidColorImage({1, 1, 1}, OIIO::ROI()),
                  "Create solid operation failed:\n");
}

TEST_F(Operations, PreMultiplyRoundTripsAndRefusesUnknownModes) {
    const ip::Image straight = imageOf(1, 1, 4, {0.8f, 0.4f, 0.2f, 0.5f});
    const ip::Image premultiplied = ip::preMultiply(straight, ip::PreMultMode::Premult);
    EXPECT_EQ(at(premultiplied, 0, 0, 0), 0.4f);
    EXPECT_EQ(at(premultiplied, 0, 0, 2), 0.1f);
    EXPECT_EQ(at(premultiplied, 0, 0, 3), 0.5f);
    EXPECT_EQ(premultiplied.properties, kProperties);
    const ip::Image back = ip::preMultiply(premultiplied, ip::PreMultMode::Unpremult);
    EXPECT_EQ(OIIO::ImageBufAlgo::compare(back.buffer, straight.buffer, 0, 0).nfail, 0u);
    const ip::Image again = ip::preMultiply(straight, ip::PreMultMode::Repremult);
    EXPECT_TRUE(sameImage(again.buffer, premultiplied.buffer));
    EXPECT_EQ(at(straight, 0, 0, 0), 0.8f);
    expectNoWarnings();

    // An empty source would make OpenImageIO fail: only the mode's own message shows, so no
    // call was made.
    for (const int mode : {3, -1}) {
        expectFailure(ip::preMultiply(ip::Image(), static_cast<ip::PreMultMode>(mode)),
                      "Invalid PreMultMode");
    }
    expectFailure(ip::preMultiply(ip::Image(), ip::PreMultMode::Premult),
                  "Premultiply operation failed:\n");
}

TEST_F(Operations, AddAlphaChannelOnlyToThreeChannelImagesWithoutAlpha) {
    ip::Image rgb = imageOf(2, 1, 3, {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f});
    rgb.properties = {{"own", "map"}};
    ASSERT_TRUE(ip::addAlphaChannel(rgb, 0.0f));
    EXPECT_EQ(rgb.buffer.spec().channelnames, (std::vector<std::string>{"R", "G", "B", "A"}));
    EXPECT_EQ(rgb.buffer.spec().alpha_channel, 3);
    EXPECT_EQ(at(rgb, 1, 0, 2), 0.6f);
    EXPECT_EQ(at(rgb, 1, 0, 3), 0.0f);
    EXPECT_EQ(rgb.properties, (std::map<std::string, std::string>{{"own", "map"}}));
    expectNoWarnings();

    const ip::Image before = rgb;
    EXPECT_FALSE(ip::addAlphaChannel(rgb, 1.0f));  // has alpha: silent
    EXPECT_TRUE(log.records().empty());
    EXPECT_TRUE(sameImage(rgb.buffer, before.buffer));

    ip::Image unmarked = imageOf(1, 1, 4, {1, 1, 1, 1});
    unmarked.buffer.specmod().alpha_channel = -1;
    ip::Image grey = imageOf(1, 1, 1, {1});
    ip::Image twoChannels = imageOf(1, 1, 2, {1, 1});
    for (ip::Image* image : {&unmarked, &grey, &twoChannels}) {
        const int channels = image->buffer.nchannels();
        EXPECT_FALSE(ip::addAlphaChannel(*image, 1.0f));
        expectOnlyMessage(spdlog::level::warn, "Couldn't add alpha channel to image with " +
                                                   std::to_string(channels) + " channels");
        EXPECT_EQ(image->buffer.nchannels(), channels);
        log.clear();
    }
}

TEST_F(Operations, ColorConvertFollowsTheSRGBCurve) {
    const std::vector<float> linear{0.001f, 0.18f, 0.5f, 1.0f};
    const ip::Image source = imageOf(4, 1, 1, linear);
    const ip::Image converted = ip::colorConvert(source, "linear", "sRGB");
    for (int x = 0; x < 4; ++x) {
        const float v = linear[x];
        const float curve = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1 / 2.4f) - 0.055f;
        EXPECT_NEAR(at(converted, x, 0, 0), curve, 2e-4) << v;
    }
    EXPECT_EQ(ip::getColorSpace(converted), "sRGB");
    EXPECT_EQ(converted.properties, kProperties);
    const ip::Image back = ip::colorConvert(converted, "sRGB", "linear");
    EXPECT_NEAR(at(back, 1, 0, 0), 0.18f, 1e-4);
    expectNoWarnings();
    expectFailure(ip::colorConvert(source, "linear", "no such space"),
                  "colorConvert operation failed:\n");
}

TEST_F(Operations, ShuffleAppendAndInvert) {
    const ip::Image rgba = imageOf(1, 1, 4, {0.1f, 0.2f, 0.3f, 0.4f});
    const int order[] = {2, 0};
    const ip::Image shuffled = ip::shuffle(rgba, 2, order);
    EXPECT_EQ(shuffled.buffer.nchannels(), 2);
    EXPECT_EQ(at(shuffled, 0, 0, 0), 0.3f);
    EXPECT_EQ(at(shuffled, 0, 0, 1), 0.1f);
    EXPECT_EQ(shuffled.properties, kProperties);

    ip::Image depth = imageOf(1, 1, 1, {7.0f});
    depth.properties = {{"second", "dropped"}};
    const ip::Image appended = ip::channelAppend(rgba, depth);
    EXPECT_EQ(appended.buffer.nchannels(), 5);
    EXPECT_EQ(at(appended, 0, 0, 3), 0.4f);
    EXPECT_EQ(at(appended, 0, 0, 4), 7.0f);
    EXPECT_EQ(appended.properties, kProperties);

    const ip::Image inverted = ip::invert(rgba);
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(at(inverted, 0, 0, c), 1.0f - at(rgba, 0, 0, c));
    }
    EXPECT_EQ(inverted.properties, kProperties);
    const ip::Image colourOnly = ip::invert(rgba, OIIO::ROI(0, 1, 0, 1, 0, 1, 0, 3));
    EXPECT_EQ(at(colourOnly, 0, 0, 0), 0.9f);
    expectNoWarnings();

    const ip::Image empty;
    expectFailure(ip::shuffle(empty, 2, order), "Shuffle operation failed:\n");
    expectFailure(ip::channelAppend(empty, empty), "Channel append operation failed:\n");
    expectFailure(ip::invert(empty), "Invert operation failed:\n");
}

TEST_F(Operations, InvertChannelChangesExactlyTheNamedChannel) {
    // Every channel of RGBA, on a data window at (0, 0) and on one shifted away from it.
    for (const OIIO::ROI window : {OIIO::ROI(0, 3, 0, 2), OIIO::ROI(5, 8, -3, -1)}) {
        ip::Image source = makeGradient(3, 2, 4, OIIO::TypeDesc::FLOAT, 0.03f);
        source.buffer.set_origin(window.xbegin, window.ybegin);
        source.properties = kProperties;
        const ip::Image before = source;
        for (int channel = 0; channel < 4; ++channel) {
            const std::string name = source.buffer.spec().channelnames[channel];
            SCOPED_TRACE(name + " from x " + std::to_string(window.xbegin));
            const ip::Image result = ip::invertChannel(source, name);
            ASSERT_EQ(result.buffer.roi(), source.buffer.roi());
            for (OIIO::ImageBuf::ConstIterator<float> in(source.buffer); !in.done(); ++in) {
                for (int c = 0; c < 4; ++c) {
                    const float expected = c == channel ? 1.0f - in[c] : in[c];
                    EXPECT_EQ(at(result, in.x(), in.y(), c), expected) << in.x() << "," << in.y();
                }
            }
            EXPECT_EQ(result.properties, kProperties);
        }
        EXPECT_TRUE(sameImage(source.buffer, before.buffer));
    }
    expectNoWarnings();

    ip::Image twins = imageOf(1, 1, 2, {0.25f, 0.25f});
    twins.buffer.specmod().channelnames = {"Z", "Z"};
    const ip::Image first = ip::invertChannel(twins, "Z");
    EXPECT_EQ(at(first, 0, 0, 0), 0.75f);
    EXPECT_EQ(at(first, 0, 0, 1), 0.25f);

    expectFailure(ip::invertChannel(makeGradient(1, 1, 4), "r"), "Given channel 'r' doesn't exist");
    expectFailure(ip::invertChannel(ip::Image(), "R"), "Given channel 'R' doesn't exist");
}

}  // namespace
