// normalize: the float path (FLOAT and other stored types), the integer path of scalar UINT32
// images, the debug lines and the failure for a channel that isn't there.

#include <cmath>

#include <fmt/format.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::sameImage;

namespace {

/// An image of `format` holding `values` (given as the raw numbers of that type).
template <typename T>
ip::Image imageOf(int width, int height, int channels, OIIO::TypeDesc format,
                  const std::vector<T>& values) {
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(width, height, channels, format));
    image.buffer.set_pixels(image.buffer.roi(), format, values.data());
    image.properties = {{"shot", "010"}};
    return image;
}

/// The remap in single precision, multiplication before division.
float remap(float v, float min, float max, float targetMin, float targetMax) {
    return (v - min) * (targetMax - targetMin) / (max - min) + targetMin;
}

class Normalize : public LibraryTest {
protected:
    std::vector<std::string> debugLines() {
        std::vector<std::string> lines;
        for (const auto& record : log.records()) {
            if (record.level == spdlog::level::debug) {
                lines.push_back(record.message);
            }
        }
        return lines;
    }
};

TEST_F(Normalize, FloatImageRemapsRGBOverOneRangeAndKeepsAlpha) {
    const ip::Image source = imageOf<float>(2, 1, 4, OIIO::TypeDesc::FLOAT,
                                            {0.2f, 0.4f, 0.6f, 0.3f, 0.5f, 0.9f, 0.7f, 0.05f});
    const ip::Image before = source;
    const ip::Image result = ip::normalize(source, 0.0f, 1.0f);
    ASSERT_TRUE(result.buffer.initialized());
    for (int x = 0; x < 2; ++x) {
        for (int c = 0; c < 4; ++c) {
            const float v = source.buffer.getchannel(x, 0, 0, c);
            const float expected = c == 3 ? v : remap(v, 0.2f, 0.9f, 0.0f, 1.0f);
            EXPECT_EQ(result.buffer.getchannel(x, 0, 0, c), expected) << x << " " << c;
        }
    }
    EXPECT_EQ(result.properties, source.properties);
    EXPECT_EQ(debugLines(),
              std::vector<std::string>{"Normalizing float buffer with min : 0.2 max : 0.9"});
    EXPECT_TRUE(sameImage(source.buffer, before.buffer));

    // Reversed target; all chosen samples equal gives NaN, unreported.
    const ip::Image reversed = ip::normalize(source, 1.0f, 0.0f, {"B"});
    EXPECT_EQ(reversed.buffer.getchannel(0, 0, 0, 2), 1.0f);
    EXPECT_EQ(reversed.buffer.getchannel(1, 0, 0, 2), 0.0f);
    EXPECT_EQ(reversed.buffer.getchannel(0, 0, 0, 0), 0.2f);
    const ip::Image flat = imageOf<float>(2, 1, 1, OIIO::TypeDesc::FLOAT, {0.5f, 0.5f});
    EXPECT_TRUE(std::isnan(ip::normalize(flat, 0.0f, 1.0f, {"Y"}).buffer.getchannel(0, 0, 0, 0)));
    expectNoWarnings();
}

TEST_F(Normalize, IntegerTypesOnTheFloatPathUseTheNormalisedScale) {
    // 51, 102, 204 are about 0.2, 0.4 and 0.8 on OpenImageIO's float scale (getchannel's), as
    // computePixelStats reports them; the result stays UINT8.
    const ip::Image source = imageOf<std::uint8_t>(3, 1, 1, OIIO::TypeDesc::UINT8, {51, 102, 204});
    const ip::Image result = ip::normalize(source, 0.0f, 1.0f, {"Y"});
    std::vector<std::uint8_t> stored(3);
    result.buffer.get_pixels(result.buffer.roi(), OIIO::TypeDesc::UINT8, stored.data());
    EXPECT_EQ(stored, (std::vector<std::uint8_t>{0, 85, 255}));
    EXPECT_EQ(debugLines(),
              std::vector<std::string>{fmt::format(
                  "Normalizing float buffer with min : {} max : {}",
                  source.buffer.getchannel(0, 0, 0, 0), source.buffer.getchannel(2, 0, 0, 0))});
    expectNoWarnings();
}

TEST_F(Normalize, UInt32TakesTheIntegerPathAboveTwoToThe24) {
    // Channel 0 is chosen, channel 1 is carried through float and setpixel.
    const std::vector<std::uint32_t> raw{16777217u, 7u, 33554432u, 0u, 4294967295u, 16777216u};
    const ip::Image source = imageOf(3, 1, 2, OIIO::TypeDesc::UINT32, raw);
    const ip::Image result = ip::normalize(source, 0.0f, 1.0f, {"R"});
    ASSERT_TRUE(result.buffer.initialized());
    EXPECT_EQ(result.buffer.spec().format, OIIO::TypeDesc::UINT32);

    // The samples as floats: 2^24 + 1 rounds to 2^24, 2^32 - 1 to 2^32.
    const float min = 16777216.0f, max = 4294967296.0f;
    EXPECT_EQ(debugLines(), std::vector<std::string>{fmt::format(
                                "Normalizing int buffer with min : {} max : {}", min, max)});
    // What the result must hold: the floats as setpixel stores them in a UINT32 buffer.
    OIIO::ImageBuf expected(source.buffer.spec());
    for (int x = 0; x < 3; ++x) {
        const float pixel[] = {remap(float(raw[2 * x]), min, max, 0.0f, 1.0f),
                               float(raw[2 * x + 1])};
        expected.setpixel(x, 0, 0, pixel, 2);
    }
    EXPECT_TRUE(sameImage(result.buffer, expected));
    EXPECT_EQ(ip::getPixelUIntValue(result, 0, 0, 0, 0), 0u);
    EXPECT_EQ(ip::getPixelUIntValue(result, 2, 0, 0, 0), 4294967295u);
    expectNoWarnings();
}

TEST_F(Normalize, UnknownChannelFailsTheWholeCall) {
    const ip::Image rgba = imageOf<float>(1, 1, 4, OIIO::TypeDesc::FLOAT, {0, 1, 0, 1});
    const ip::Image result = ip::normalize(rgba, 0.0f, 1.0f, {"R", "G", "Z"});
    EXPECT_FALSE(result.buffer.initialized());
    EXPECT_TRUE(result.properties.empty());
    expectOnlyMessage(spdlog::level::err,
                      "Normalize fails: Channel index out of range:\nZ, present channels : "
                      "[R, G, B, A]");
    EXPECT_TRUE(debugLines().empty());  // no pixel work was started
    log.clear();

    // The default list names R, also where the caller named nothing.
    const ip::Image grey = imageOf<float>(1, 1, 1, OIIO::TypeDesc::FLOAT, {0.5f});
    EXPECT_FALSE(ip::normalize(grey, 0.0f, 1.0f).buffer.initialized());
    expectOnlyMessage(spdlog::level::err,
                      "Normalize fails: Channel index out of range:\nR, present channels : [Y]");
    log.clear();
    EXPECT_FALSE(ip::normalize(ip::Image(), 0.0f, 1.0f).buffer.initialized());
    expectOnlyMessage(spdlog::level::err,
                      "Normalize fails: Channel index out of range:\nR, present channels : []");
}

}  // namespace
