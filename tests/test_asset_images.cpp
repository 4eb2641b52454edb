// Asset images: Hio (OpenUSD's or our stand-in) on real files written by OpenImageIO,
// getImageFromAssetPath over it, and the Hgi format vocabulary. What only the stand-in does (its
// TIFF reader, UINT32 OpenEXR pixels) is tested only in builds with VOREL_TEST_STAND_IN.

#include <pxr/imaging/hio/image.h>

#include "test_support.h"

using namespace vorel::test;
using PXR_NS::HioImage;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes bytesOf(const OIIO::ImageBuf& buffer, T type) {
    Bytes bytes(buffer.spec().image_pixels() * buffer.nchannels() * type.size());
    EXPECT_TRUE(buffer.get_pixels(buffer.roi(), type, bytes.data()));
    return bytes;
}

class AssetImages : public LibraryTest {
protected:
    // A 5 x 3 gradient (exact in RGBE too) written by OpenImageIO with colour beside alpha stored
    // as it is; "oiio:ColorSpace" decides which colour chunks the PNG writer emits.
    Bytes write(const std::string& name, int channels, T type, const char* colorSpace = "") {
        ip::Image image = makeGradient(5, 3, channels, type, 0.25f);
        image.buffer.specmod().attribute("oiio:UnassociatedAlpha", 1);
        image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
        writeWithOIIO(image.buffer, temp / name);
        return bytesOf(image.buffer, type);
    }
    PXR_NS::HioImageSharedPtr open(const std::string& name, int subimage = 0) {
        return HioImage::OpenForReading((temp / name).string(), subimage);
    }
};

TEST_F(AssetImages, SamplesAsStoredSRGBByGammaChunkThen8BitColourAndAssetsAsBytes) {
    const std::tuple<const char*, int, T::BASETYPE, const char*, PXR_NS::HioFormat> cases[] = {
        {"rgba.png", 4, T::UINT8, "", PXR_NS::HioFormatUNorm8Vec4srgb},
        {"grey.png", 1, T::UINT8, "", PXR_NS::HioFormatUNorm8},
        {"greyalpha.png", 2, T::UINT8, "", PXR_NS::HioFormatUNorm8Vec2},
        // gAMA 0.45455 (here beside an sRGB chunk) makes even one channel sRGB; 1.0 linear.
        {"greysrgb.png", 1, T::UINT8, "sRGB", PXR_NS::HioFormatUNorm8srgb},
        {"rgblinear.png", 3, T::UINT8, "linear", PXR_NS::HioFormatUNorm8Vec3},
        {"half.exr", 4, T::HALF, "", PXR_NS::HioFormatFloat16Vec4},
        {"float.exr", 4, T::FLOAT, "", PXR_NS::HioFormatFloat32Vec4},
        {"rgb.hdr", 3, T::FLOAT, "", PXR_NS::HioFormatFloat32Vec3},
#if defined(VOREL_TEST_STAND_IN)
        {"uint.exr", 1, T::UINT32, "", PXR_NS::HioFormatInt32},
        {"rgb8.tif", 3, T::UINT8, "", PXR_NS::HioFormatUNorm8Vec3srgb},
        {"ga16.tif", 2, T::UINT16, "", PXR_NS::HioFormatUInt16Vec2},
        {"grey.TIFF", 1, T::FLOAT, "", PXR_NS::HioFormatFloat32},
#endif
    };
    for (const auto& [name, channels, type, colorSpace, format] : cases) {
        SCOPED_TRACE(name);
        const Bytes samples = write(name, channels, type, colorSpace);
        const auto image = open(name);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->GetFormat(), format);
        const bool sRGB = format >= PXR_NS::HioFormatUNorm8srgb;
        EXPECT_EQ(image->IsColorSpaceSRGB(), sRGB);
        // Read's bytes as stored, top row first, as one UINT8 channel per byte of a pixel.
        const ip::Image asset = ip::getImageFromAssetPath((temp / name).string());
        EXPECT_EQ(asset.buffer.roi(), OIIO::ROI(0, 5, 0, 3, 0, 1, 0, channels * T(type).size()));
        EXPECT_EQ(asset.buffer.spec().format, T::UINT8);
        EXPECT_EQ(ip::getColorSpace(asset), sRGB ? "sRGB" : "");
        EXPECT_EQ(bytesOf(asset.buffer, T::UINT8), samples);
    }
    expectNoWarnings();
}

TEST_F(AssetImages, JpegWithinTwoOfOpenImageIOTiffAndUInt32OpenEXRAsTheHioHasThem) {
    // stb_image and libjpeg round the inverse DCT differently.
    write("gradient.jpg", 3, T::UINT8);
    const ip::Image jpeg = ip::getImageFromAssetPath((temp / "gradient.jpg").string());
    const Bytes decoded = bytesOf(jpeg.buffer, T::UINT8);
    const Bytes expected = bytesOf(ip::readImage(temp / "gradient.jpg").buffer, T::UINT8);
    EXPECT_TRUE(std::equal(decoded.begin(), decoded.end(), expected.begin(), expected.end(),
                           [](int a, int b) { return std::abs(a - b) <= 2; }));
    EXPECT_EQ(ip::getColorSpace(jpeg), "sRGB");
    expectNoWarnings();
#if !defined(VOREL_TEST_STAND_IN)
    // Without its OpenImageIO plugin OpenUSD has no TIFF reader; it opens a UINT32 OpenEXR but
    // refuses to read the very format it reported.
    write("rgb8.tif", 3, T::UINT8);
    write("uint.exr", 1, T::UINT32);
    EXPECT_EQ(open("uint.exr")->GetFormat(), PXR_NS::HioFormatInt32);
    for (const char* name : {"rgb8.tif", "uint.exr"})
        row(name, describe(ip::getImageFromAssetPath((temp / name).string())));
#endif
}

TEST_F(AssetImages, HioGivesNullSilentlyTheAssetPathItsOneMessage) {
    write("image.png", 3, T::UINT8);
    write("image.gif", 3, T::UINT8);
    fs::copy_file(temp / "image.png", temp / "png_inside.exr");
    EXPECT_FALSE(open("missing.png") || open("image.gif") || open("png_inside.exr") ||
                 open("image.png", /*subimage=*/1));
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(OIIO::geterror(true), "");  // nothing left behind for a later message

    // Hio opens the header of a cut-off file and fails when decoding it.
    const fs::path truncated = temp / "truncated.png";
    writeWithOIIO(makeGradient(64, 64, 3, T::UINT8).buffer, truncated);
    fs::resize_file(truncated, fs::file_size(truncated) / 2);
    for (const char* name : {"missing.png", "truncated.png"})
        row(name, describe(ip::getImageFromAssetPath((temp / name).string())));
}

TEST_F(AssetImages, HgiFormatsTranslateValueByValue) {
    // Invalid, every value up to UNorm8Vec4srgb (26), and the first compressed one after it.
    for (int value = PXR_NS::HgiFormatInvalid; value <= PXR_NS::HgiFormatBC6FloatVec3; ++value) {
        const auto format = static_cast<PXR_NS::HgiFormat>(value);
        row(std::to_string(value), fmt::format("{} x {}", ip::getNumChannelsFromHgiFormat(format),
                                               ip::getOIIOTypeDescFromHgiFormat(format)));
    }
}

}  // namespace
