// ID images: INT32 identifiers shifted into UINT32 samples, and dilated RGBA masks.

#include <cstdint>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using T = OIIO::TypeDesc;

namespace {

class IdImages : public vorel::test::LibraryTest {};

TEST_F(IdImages, ConvertShiftsTheIdsOfAFileIntoUnsignedSamples) {
    std::vector<std::int32_t> ids{-1, 0, 2147483647, -5, 1, 41, -2147483648, 7};
    vorel::test::writeWithOIIO(ip::createImageFromData(ids.data(), 2, 2, 2, T::INT32).buffer,
                               temp / "ids.tif");
    ip::Image image = ip::readImage(temp / "ids.tif");
    ASSERT_TRUE(ip::convertIdImageToUint(image));
    EXPECT_EQ(image.buffer.spec().format, T(T::UINT32));
    std::vector<std::uint32_t> shifted(8);
    ASSERT_TRUE(image.buffer.get_pixels(image.buffer.roi(), T::UINT32, shifted.data()));
    EXPECT_EQ(shifted, (std::vector<std::uint32_t>{0, 1, 2147483648u, 0, 2, 42, 0, 8}));
    expectNoWarnings();
}

TEST_F(IdImages, MaskMarksIdentifiedPixelsAndGrowsThemByOne) {
    std::vector<std::int32_t> ids(5 * 4, -1);
    ids[5 + 1] = 0;  // (1, 1): ID 0 counts
    ip::Image image = ip::createImageFromData(ids.data(), 5, 4, 1, T::INT32);
    image.buffer.set_origin(3, 2);
    ip::setColorSpace(image, "Raw");
    log.clear();
    ip::idImageToMask(image);
    expectOnlyMessage(spdlog::level::debug, "idImageToMask");
    // The mask's own ImageSpec: origin 0, 0, four UINT8 channels, no colour tag.
    EXPECT_EQ(image.buffer.roi(), OIIO::ROI(0, 5, 0, 4, 0, 1, 0, 4));
    EXPECT_EQ(image.buffer.spec().format, T(T::UINT8));
    EXPECT_EQ(ip::getColorSpace(image), "");
    // The 2 x 2 window grows the pixel into its right, lower and lower-right neighbours, alpha too.
    std::vector<unsigned char> mask(5 * 4 * 4);
    ASSERT_TRUE(image.buffer.get_pixels(image.buffer.roi(), T::UINT8, mask.data()));
    for (size_t i = 0; i < mask.size(); ++i) {
        const size_t x = i / 4 % 5, y = i / 20;
        EXPECT_EQ(mask[i], (x == 1 || x == 2) && (y == 1 || y == 2) ? 255 : 0) << x << "," << y;
    }
}

TEST_F(IdImages, RefusalsLeaveTheImageAsItWasWithTheirOneLine) {
    // Deep storage keeps pixels out of one local block.
    const auto imageOf = [](OIIO::ImageSpec spec, bool deep = false) {
        spec.deep = deep;
        ip::Image image;
        image.buffer.reset(spec);
        return image;
    };
    ip::Image converted = imageOf({2, 2, 1, T::INT32});  // converted once: never shifted twice
    ASSERT_TRUE(ip::convertIdImageToUint(converted));
    // convertIdImageToUint's message; idImageToMask's is the same for non-local pixels.
    const std::string nonLocal = "Can't modify image with non-local pixels";
    const std::pair<ip::Image, std::string> cases[] = {
        {imageOf({2, 2, 1, T::FLOAT}), "Can't convert non-ID image: float format"},
        {imageOf({2, 2, 1, T(T::INT32, 2)}), "Can't convert non-ID image: int[2] format"},
        {converted, "Can't convert non-ID image: uint format"},
        {imageOf({2, 2, 2, T::INT32}), ""},  // convertible, but no mask's input
        {imageOf({3, 2, 1, T::FLOAT}, true), "Can't convert non-ID image: float format"},
        {imageOf({3, 2, 1, T::INT32}, true), nonLocal}};
    for (const auto& [image, convertMessage] : cases) {
        SCOPED_TRACE(convertMessage + (image.buffer.deep() ? ", deep" : ""));
        ip::Image refused = image;
        if (!convertMessage.empty()) {
            log.clear();
            EXPECT_FALSE(ip::convertIdImageToUint(refused));
            expectOnlyMessage(spdlog::level::err, convertMessage);
        }
        log.clear();
        ip::idImageToMask(refused);
        expectOnlyMessage(spdlog::level::err,
                          convertMessage == nonLocal ? nonLocal : "Unexpected format for idImage");
        EXPECT_EQ(log.records().at(0).message, "idImageToMask");  // also when refusing
        EXPECT_EQ(refused.buffer.spec().format, image.buffer.spec().format);
        EXPECT_TRUE(image.buffer.deep() || vorel::test::sameImage(refused.buffer, image.buffer));
    }
}

}  // namespace
