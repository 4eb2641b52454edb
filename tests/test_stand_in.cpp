// The stand-in for the OpenUSD names on its own: enumeration values, byte sizes, and HioImage on
// real files written by OpenImageIO.

#include <cstring>
#include <fstream>
#include <iterator>

#include <OpenImageIO/imagebufalgo.h>
#include <pxr/imaging/hgi/types.h>
#include <pxr/imaging/hio/image.h>
#include <pxr/imaging/hio/types.h>

#include "test_support.h"

namespace fs = std::filesystem;
using PXR_NS::HioImage;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::writeWithOIIO;

namespace {

// Writes `samples` to an 8-bit file as they are: with "oiio:UnassociatedAlpha" OpenImageIO stores
// colour beside alpha untouched instead of un-associating it first.
std::vector<unsigned char> writeRawBytes(const fs::path& path, int width, int height,
                                         int channels) {
    std::vector<unsigned char> samples(static_cast<size_t>(width) * height * channels);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<unsigned char>(i * 7 + 3);  // alpha well below 255
    }
    OIIO::ImageSpec spec(width, height, channels, OIIO::TypeDesc::UINT8);
    spec.attribute("oiio:UnassociatedAlpha", 1);
    const auto out = OIIO::ImageOutput::create(path.string());
    EXPECT_TRUE(out && out->open(path.string(), spec) &&
                out->write_image(OIIO::TypeDesc::UINT8, samples.data()) && out->close());
    return samples;
}

class StandIn : public LibraryTest {
protected:
    // An image written by OpenImageIO, with "oiio:ColorSpace" set to `colorSpace` unless it is
    // empty; that attribute decides which colour chunks OpenImageIO's PNG writer emits.
    fs::path write(const std::string& name, int channels, OIIO::TypeDesc type,
                   const std::string& colorSpace = "") {
        vorel::usd::image_processing::Image image = makeGradient(5, 3, channels, type);
        if (!colorSpace.empty()) {
            image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
        }
        writeWithOIIO(image.buffer, temp / name);
        return temp / name;
    }

    static bool hasGammaChunk(const fs::path& png) {
        std::ifstream file(png, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        return bytes.find("gAMA") != std::string::npos;
    }

    // All pixels through Read, or nothing when Read refuses.
    static std::vector<unsigned char> readAll(HioImage& image, bool flipped = false) {
        std::vector<unsigned char> pixels(static_cast<size_t>(image.GetWidth()) *
                                          image.GetHeight() * image.GetBytesPerPixel());
        HioImage::StorageSpec storage;
        storage.width = image.GetWidth();
        storage.height = image.GetHeight();
        storage.format = image.GetFormat();
        storage.flipped = flipped;
        storage.data = pixels.data();
        return image.Read(storage) ? pixels : std::vector<unsigned char>{};
    }
};

TEST(StandInNames, EnumerationValuesAndByteSizesAreOpenUSDs) {
    EXPECT_EQ(PXR_VERSION, 2505);
    EXPECT_EQ(PXR_NS::HgiFormatUNorm8Vec4srgb, 26);
    EXPECT_EQ(PXR_NS::HgiFormatPackedInt1010102, 34);
    EXPECT_EQ(PXR_NS::HgiFormatCount, 35);
    EXPECT_EQ(PXR_NS::HioFormatInt32Vec4, 35);
    EXPECT_EQ(PXR_NS::HioFormatUNorm8Vec4srgb, 39);
    EXPECT_EQ(PXR_NS::HioFormatBC3UNorm8Vec4, 45);
    EXPECT_EQ(PXR_NS::HioFormatCount, 46);
    EXPECT_EQ(HioImage::Auto, 2);

    // Families of four (1 to 4 components): UNorm8, SNorm8, Float16, Float32, Double64,
    // UInt16, Int16, UInt32, Int32, UNorm8srgb.
    const size_t componentBytes[] = {1, 1, 2, 4, 8, 2, 2, 4, 4, 1};
    for (int value = 0; value < PXR_NS::HioFormatBC6FloatVec3; ++value) {
        size_t width = 0;
        size_t height = 0;
        EXPECT_EQ(
            PXR_NS::HioGetDataSizeOfFormat(static_cast<PXR_NS::HioFormat>(value), &width, &height),
            (value % 4 + 1) * componentBytes[value / 4])
            << value;
        EXPECT_EQ(width, 1u);
        EXPECT_EQ(height, 1u);
    }
    for (int value = PXR_NS::HioFormatBC6FloatVec3; value < PXR_NS::HioFormatCount; ++value) {
        size_t width = 0;
        size_t height = 0;
        EXPECT_EQ(
            PXR_NS::HioGetDataSizeOfFormat(static_cast<PXR_NS::HioFormat>(value), &width, &height),
            16u);
        EXPECT_EQ(width, 4u);
        EXPECT_EQ(height, 4u);
    }
    EXPECT_EQ(PXR_NS::HioGetDataSizeOfFormat(PXR_NS::HioFormatInvalid), 0u);
}

TEST_F(StandIn, SRGBFollowsThePngGammaChunkThenEightBitColour) {
    struct Case {
        const char* name;
        int channels;
        const char* colorSpace;
        bool gammaChunk;
        PXR_NS::HioFormat format;
    };
    const Case cases[] = {
        {"rgb.png", 3, "", false, PXR_NS::HioFormatUNorm8Vec3srgb},
        {"rgba.png", 4, "", false, PXR_NS::HioFormatUNorm8Vec4srgb},
        {"grey.png", 1, "", false, PXR_NS::HioFormatUNorm8},
        {"greyalpha.png", 2, "", false, PXR_NS::HioFormatUNorm8Vec2},
        // gAMA 0.45455 makes even one channel sRGB, also beside an sRGB chunk.
        {"grey22.png", 1, "GammaCorrected2.2", true, PXR_NS::HioFormatUNorm8srgb},
        {"greysrgb.png", 1, "sRGB", true, PXR_NS::HioFormatUNorm8srgb},
        // gAMA 1.0 makes colour linear.
        {"rgblinear.png", 3, "linear", true, PXR_NS::HioFormatUNorm8Vec3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path path = write(c.name, c.channels, OIIO::TypeDesc::UINT8, c.colorSpace);
        ASSERT_EQ(hasGammaChunk(path), c.gammaChunk);
        const PXR_NS::HioImageSharedPtr image = HioImage::OpenForReading(path.string());
        ASSERT_TRUE(image);
        EXPECT_EQ(image->GetFormat(), c.format);
        EXPECT_EQ(image->IsColorSpaceSRGB(), c.format >= PXR_NS::HioFormatUNorm8srgb);
        EXPECT_EQ(image->GetBytesPerPixel(), c.channels);
        EXPECT_EQ(image->GetFilename(), path.string());
    }
    // An explicit colour space overrides the file.
    const auto raw = HioImage::OpenForReading((temp / "rgb.png").string(), 0, 0, HioImage::Raw);
    EXPECT_EQ(raw->GetFormat(), PXR_NS::HioFormatUNorm8Vec3);
    EXPECT_FALSE(raw->IsColorSpaceSRGB());
    const auto srgb = HioImage::OpenForReading((temp / "grey.png").string(), 0, 0, HioImage::SRGB);
    EXPECT_EQ(srgb->GetFormat(), PXR_NS::HioFormatUNorm8srgb);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(StandIn, ReadDeliversRowsInOrderOrFlippedAndRefusesOtherLayouts) {
    const fs::path path = temp / "rgba.png";
    const std::vector<unsigned char> expected = writeRawBytes(path, 5, 3, 4);
    const auto image = HioImage::OpenForReading(path.string());
    ASSERT_TRUE(image);
    ASSERT_EQ(image->GetWidth(), 5);
    ASSERT_EQ(image->GetHeight(), 3);
    // The stored samples, top row first, with colour not associated with alpha.
    const std::vector<unsigned char> pixels = readAll(*image);
    EXPECT_EQ(pixels, expected);
    const std::vector<unsigned char> flipped = readAll(*image, /*flipped=*/true);
    ASSERT_EQ(flipped.size(), pixels.size());
    EXPECT_TRUE(std::equal(flipped.begin(), flipped.begin() + 20, pixels.begin() + 40));

    std::vector<unsigned char> target(pixels.size());
    HioImage::StorageSpec storage;
    storage.width = 5;
    storage.height = 3;
    storage.format = PXR_NS::HioFormatUNorm8Vec4;  // not the image's sRGB format
    storage.data = target.data();
    EXPECT_FALSE(image->Read(storage));
    storage.format = image->GetFormat();
    storage.height = 2;
    EXPECT_FALSE(image->Read(storage));
}

TEST_F(StandIn, SixteenBitPngKeepsTheHighByteOfEachSample) {
    const uint16_t samples[] = {0x12FF, 0x0080, 0xFFFF};  // rounding would give 0x13, 0x01
    OIIO::ImageBuf source(OIIO::ImageSpec(1, 1, 3, OIIO::TypeDesc::UINT16));
    source.set_pixels(source.roi(), OIIO::TypeDesc::UINT16, samples);
    writeWithOIIO(source, temp / "deep.png");
    const auto image = HioImage::OpenForReading((temp / "deep.png").string());
    ASSERT_TRUE(image);
    EXPECT_EQ(image->GetFormat(), PXR_NS::HioFormatUNorm8Vec3srgb);
    EXPECT_EQ(readAll(*image), (std::vector<unsigned char>{0x12, 0x00, 0xFF}));
}

TEST_F(StandIn, FloatAndTiffFilesKeepTheirSampleType) {
    struct Case {
        const char* name;
        int channels;
        OIIO::TypeDesc type;
        PXR_NS::HioFormat format;
        bool sRGB;
    };
    const Case cases[] = {
        {"half.exr", 4, OIIO::TypeDesc::HALF, PXR_NS::HioFormatFloat16Vec4, false},
        {"float.exr", 3, OIIO::TypeDesc::FLOAT, PXR_NS::HioFormatFloat32Vec3, false},
        {"uint.exr", 1, OIIO::TypeDesc::UINT32, PXR_NS::HioFormatInt32, false},
        {"rgb.hdr", 3, OIIO::TypeDesc::FLOAT, PXR_NS::HioFormatFloat32Vec3, false},
        {"rgb8.tif", 3, OIIO::TypeDesc::UINT8, PXR_NS::HioFormatUNorm8Vec3srgb, true},
        {"ga16.tif", 2, OIIO::TypeDesc::UINT16, PXR_NS::HioFormatUInt16Vec2, false},
        {"grey.TIFF", 1, OIIO::TypeDesc::FLOAT, PXR_NS::HioFormatFloat32, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path path = write(c.name, c.channels, c.type);
        const auto image = HioImage::OpenForReading(path.string());
        ASSERT_TRUE(image);
        EXPECT_EQ(image->GetFormat(), c.format);
        EXPECT_EQ(image->IsColorSpaceSRGB(), c.sRGB);
    }
    // The pixels are the file's own samples, byte for byte.
    const auto image = HioImage::OpenForReading((temp / "float.exr").string());
    OIIO::ImageBuf file((temp / "float.exr").string());
    std::vector<float> expected(5 * 3 * 3);
    ASSERT_TRUE(file.get_pixels(file.roi(), OIIO::TypeDesc::FLOAT, expected.data()));
    const std::vector<unsigned char> pixels = readAll(*image);
    ASSERT_EQ(pixels.size(), expected.size() * sizeof(float));
    EXPECT_EQ(std::memcmp(pixels.data(), expected.data(), pixels.size()), 0);
    // OpenEXR is never sRGB, whatever is asked.
    EXPECT_FALSE(HioImage::OpenForReading((temp / "half.exr").string(), 0, 0, HioImage::SRGB)
                     ->IsColorSpaceSRGB());
}

TEST_F(StandIn, UnreadableRequestsGiveNullSilently) {
    write("image.png", 3, OIIO::TypeDesc::UINT8);
    write("image.gif", 3, OIIO::TypeDesc::UINT8);
    fs::copy_file(temp / "image.png", temp / "png_inside.exr");
    std::ofstream(temp / "garbage.png") << "not an image";
    EXPECT_TRUE(HioImage::OpenForReading((temp / "image.png").string()));
    EXPECT_FALSE(HioImage::OpenForReading((temp / "missing.png").string()));
    EXPECT_FALSE(HioImage::OpenForReading((temp / "image.gif").string()));
    EXPECT_FALSE(HioImage::OpenForReading((temp / "png_inside.exr").string()));
    EXPECT_FALSE(HioImage::OpenForReading((temp / "garbage.png").string()));
    EXPECT_FALSE(HioImage::OpenForReading((temp / "image.png").string(), 1));
    EXPECT_FALSE(HioImage::OpenForReading((temp / "image.png").string(), 0, 1));
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(OIIO::geterror(true), "");  // nothing left behind for a later message
}

}  // namespace
