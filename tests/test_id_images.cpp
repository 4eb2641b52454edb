// ID images: INT32 identifiers shifted into UINT32 samples, and dilated RGBA masks.

#include <cstdint>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::sameImage;

namespace {

class IdImages : public LibraryTest {
protected:
    /// A width x height image of one INT32 channel, every ID -1 except `id` at (x, y).
    static ip::Image singleId(int width, int height, int x, int y, std::int32_t id) {
        std::vector<std::int32_t> ids(width * height, -1);
        ids[y * width + x] = id;
        return ip::createImageFromData(ids.data(), width, height, 1, OIIO::TypeDesc::INT32);
    }

    /// An INT32 image whose pixels live in deep storage, not in one local block.
    static ip::Image deepIds(OIIO::TypeDesc format = OIIO::TypeDesc::INT32) {
        OIIO::ImageSpec spec(3, 2, 1, format);
        spec.deep = true;
        ip::Image image;
        image.buffer = OIIO::ImageBuf(spec);
        return image;
    }
};

TEST_F(IdImages, ConvertShiftsIdsOfAFileIntoUnsignedSamples) {
    std::vector<std::int32_t> ids{-1, 0, 2147483647, -5, 1, 41, -2147483648, 7};
    const std::vector<unsigned> expected{0, 1, 2147483648u, 0, 2, 42, 0, 8};
    ip::Image source = ip::createImageFromData(ids.data(), 2, 2, 2, OIIO::TypeDesc::INT32);
    vorel::test::writeWithOIIO(source.buffer, temp / "ids.tif");
    ip::Image image = ip::readImage(temp / "ids.tif");
    ASSERT_EQ(image.buffer.spec().format, OIIO::TypeDesc::INT32);
    image.properties["pass"] = "objectId";
    const void* const pixels = image.buffer.localpixels();

    ASSERT_TRUE(ip::convertIdImageToUint(image));
    EXPECT_EQ(image.buffer.spec().format, OIIO::TypeDesc(OIIO::TypeDesc::UINT32));
    EXPECT_EQ(image.buffer.localpixels(), pixels);
    EXPECT_EQ(image.properties.at("pass"), "objectId");
    expectNoWarnings();
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(ip::getPixelUIntValue(image, (i / 2) % 2, i / 4, 0, i % 2), expected[i]) << i;
    }

    // Converted once, refused after: the IDs are never shifted twice.
    const ip::Image converted = image;
    EXPECT_FALSE(ip::convertIdImageToUint(image));
    expectOnlyMessage(spdlog::level::err, "Can't convert non-ID image: uint format");
    EXPECT_TRUE(sameImage(image.buffer, converted.buffer));
}

TEST_F(IdImages, ConvertRefusesOtherTypesAndNonLocalPixels) {
    ip::Image arrays;
    arrays.buffer =
        OIIO::ImageBuf(OIIO::ImageSpec(2, 2, 1, OIIO::TypeDesc(OIIO::TypeDesc::INT32, 2)));
    const std::pair<ip::Image, std::string> cases[] = {
        {vorel::test::makeGradient(2, 2, 1), "Can't convert non-ID image: float format"},
        {arrays, "Can't convert non-ID image: int[2] format"},
        {ip::Image{}, "Can't convert non-ID image: unknown format"},
        // Failing both tests reports the format only.
        {deepIds(OIIO::TypeDesc::FLOAT), "Can't convert non-ID image: float format"},
        {deepIds(), "Can't modify image with non-local pixels"}};
    for (const auto& [image, message] : cases) {
        SCOPED_TRACE(message);
        log.clear();
        ip::Image refused = image;
        EXPECT_FALSE(ip::convertIdImageToUint(refused));
        expectOnlyMessage(spdlog::level::err, message);
        EXPECT_EQ(refused.buffer.spec().format, image.buffer.spec().format);
        if (!image.buffer.deep()) {
            EXPECT_TRUE(sameImage(refused.buffer, image.buffer));
        }
    }
}

TEST_F(IdImages, MaskMarksIdentifiedPixelsAndDilatesThem) {
    ip::Image image = singleId(5, 4, 1, 1, /*id=*/0);
    image.buffer.set_origin(3, 2);
    ip::setColorSpace(image, "Raw");
    image.properties["pass"] = "objectId";
    log.clear();

    ip::idImageToMask(image);
    const OIIO::ImageSpec& spec = image.buffer.spec();
    EXPECT_EQ(spec.format, OIIO::TypeDesc(OIIO::TypeDesc::UINT8));
    EXPECT_EQ(spec.nchannels, 4);
    EXPECT_EQ(spec.width, 5);
    EXPECT_EQ(spec.height, 4);
    EXPECT_EQ(spec.x, 0);
    EXPECT_EQ(spec.y, 0);
    EXPECT_EQ(ip::getColorSpace(image), "");
    EXPECT_EQ(image.properties.at("pass"), "objectId");
    // ID 0 counts; the 2 x 2 window grows it into its right, lower and lower-right neighbours.
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 5; ++x) {
            const bool set = (x == 1 || x == 2) && (y == 1 || y == 2);
            for (int c = 0; c < 4; ++c) {
                EXPECT_EQ(ip::getPixelValue(image, x, y, 0, c), set ? 1.0f : 0.0f)
                    << x << "," << y << "," << c;
            }
        }
    }
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, spdlog::level::debug);
    EXPECT_EQ(records[0].message, "idImageToMask");
}

TEST_F(IdImages, MaskRefusesAllButOneChannelOfLocalInt32) {
    std::vector<std::int32_t> twoChannels{0, 1, 2, 3};
    ip::Image converted = singleId(2, 2, 0, 0, 5);
    ASSERT_TRUE(ip::convertIdImageToUint(converted));
    const std::pair<ip::Image, std::string> cases[] = {
        {ip::createImageFromData(twoChannels.data(), 2, 1, 2, OIIO::TypeDesc::INT32),
         "Unexpected format for idImage"},
        {converted, "Unexpected format for idImage"},
        {deepIds(), "Can't modify image with non-local pixels"}};
    for (const auto& [image, message] : cases) {
        SCOPED_TRACE(message);
        log.clear();
        ip::Image refused = image;
        ip::idImageToMask(refused);
        expectOnlyMessage(spdlog::level::err, message);
        ASSERT_FALSE(log.records().empty());
        EXPECT_EQ(log.records()[0].message, "idImageToMask");
        EXPECT_EQ(refused.buffer.spec().format, image.buffer.spec().format);
        EXPECT_EQ(refused.buffer.spec().nchannels, image.buffer.spec().nchannels);
    }
}

}  // namespace
