// Asset images through Hio, and the Hgi format vocabulary.

#include <cstring>
#include <fstream>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace fs = std::filesystem;
namespace ip = vorel::usd::image_processing;
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

class AssetImages : public LibraryTest {};

TEST_F(AssetImages, EightBitPngsComeThroughWithTheirChannelsAndTheSRGBTagOfHio) {
    struct Case {
        const char* name;
        int channels;
        const char* tag;
    };
    for (const Case& c : {Case{"rgba.png", 4, "sRGB"}, Case{"grey.png", 1, ""}}) {
        SCOPED_TRACE(c.name);
        const std::vector<unsigned char> samples = writeRawBytes(temp / c.name, 6, 4, c.channels);
        const ip::Image image = ip::getImageFromAssetPath((temp / c.name).string());
        ASSERT_TRUE(image.buffer.initialized());
        EXPECT_EQ(ip::getNumChannels(image), c.channels);
        EXPECT_EQ(image.buffer.spec().format, OIIO::TypeDesc::UINT8);
        EXPECT_EQ(ip::getColorSpace(image), c.tag);
        EXPECT_TRUE(image.properties.empty());
        std::vector<unsigned char> pixels(samples.size());
        ASSERT_TRUE(
            image.buffer.get_pixels(image.buffer.roi(), OIIO::TypeDesc::UINT8, pixels.data()));
        EXPECT_EQ(pixels, samples);
    }
    expectNoWarnings();
}

TEST_F(AssetImages, FloatExrGivesOneByteChannelPerByteOfAPixel) {
    const ip::Image source = makeGradient(3, 2, 4, OIIO::TypeDesc::FLOAT, 0.25f);
    writeWithOIIO(source.buffer, temp / "rgba.exr");
    const ip::Image image = ip::getImageFromAssetPath((temp / "rgba.exr").string());
    ASSERT_TRUE(image.buffer.initialized());
    ASSERT_EQ(ip::getNumChannels(image), 16);
    EXPECT_EQ(image.buffer.spec().format, OIIO::TypeDesc::UINT8);
    EXPECT_EQ(ip::getColorSpace(image), "");
    std::vector<float> expected(3 * 2 * 4);
    ASSERT_TRUE(
        source.buffer.get_pixels(source.buffer.roi(), OIIO::TypeDesc::FLOAT, expected.data()));
    std::vector<unsigned char> bytes(expected.size() * sizeof(float));
    ASSERT_TRUE(image.buffer.get_pixels(image.buffer.roi(), OIIO::TypeDesc::UINT8, bytes.data()));
    EXPECT_EQ(std::memcmp(bytes.data(), expected.data(), bytes.size()), 0);
    expectNoWarnings();
}

TEST_F(AssetImages, FailuresReturnTheEmptyImageWithTheirOneLine) {
    const std::string missing = (temp / "missing.png").string();
    EXPECT_FALSE(ip::getImageFromAssetPath(missing).buffer.initialized());
    expectOnlyMessage(spdlog::level::err, "Failed to open image " + missing);

    // Hio opens the header of a cut-off file and fails when decoding it.
    writeWithOIIO(makeGradient(64, 64, 3, OIIO::TypeDesc::UINT8).buffer, temp / "full.png");
    const std::string truncated = (temp / "truncated.png").string();
    {
        std::ifstream in(temp / "full.png", std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        std::ofstream(truncated, std::ios::binary) << bytes.substr(0, bytes.size() / 2);
    }
    log.clear();
    EXPECT_FALSE(ip::getImageFromAssetPath(truncated).buffer.initialized());
    expectOnlyMessage(spdlog::level::err, "Reading of image " + truncated + " failed");
}

TEST_F(AssetImages, HgiFormatsTranslateValueByValue) {
    struct Row {
        int channels;
        OIIO::TypeDesc::BASETYPE type;
    };
    using T = OIIO::TypeDesc;
    const Row table[] = {{1, T::UINT8},  {2, T::UINT8},  {4, T::UINT8},  {1, T::INT8},
                         {2, T::INT8},   {4, T::INT8},   {1, T::HALF},   {2, T::HALF},
                         {3, T::HALF},   {4, T::HALF},   {1, T::FLOAT},  {2, T::FLOAT},
                         {3, T::FLOAT},  {4, T::FLOAT},  {1, T::INT16},  {2, T::INT16},
                         {3, T::INT16},  {4, T::INT16},  {1, T::UINT16}, {2, T::UINT16},
                         {3, T::UINT16}, {4, T::UINT16}, {1, T::INT32},  {2, T::INT32},
                         {3, T::INT32},  {4, T::INT32},  {4, T::UINT8}};
    for (int value = 0; value <= 26; ++value) {
        SCOPED_TRACE(value);
        const auto format = static_cast<PXR_NS::HgiFormat>(value);
        EXPECT_EQ(ip::getNumChannelsFromHgiFormat(format), table[value].channels);
        const OIIO::TypeDesc type = ip::getOIIOTypeDescFromHgiFormat(format);
        EXPECT_EQ(type, OIIO::TypeDesc(table[value].type));
        EXPECT_EQ(type.aggregate, T::SCALAR);
        EXPECT_EQ(type.arraylen, 0);
    }
    EXPECT_EQ(ip::getNumChannelsFromHgiFormat(PXR_NS::HgiFormatFloat32Vec4), 4);
    expectNoWarnings();

    for (const auto format : {PXR_NS::HgiFormatInvalid, PXR_NS::HgiFormatBC6FloatVec3,
                              PXR_NS::HgiFormatPackedInt1010102, PXR_NS::HgiFormatCount}) {
        SCOPED_TRACE(format);
        log.clear();
        EXPECT_EQ(ip::getNumChannelsFromHgiFormat(format), 0);
        expectOnlyMessage(spdlog::level::err, "Unsupported hgiFormat");
        log.clear();
        EXPECT_EQ(ip::getOIIOTypeDescFromHgiFormat(format), OIIO::TypeDesc(T::FLOAT));
        expectOnlyMessage(spdlog::level::err, "Unsupported hgiFormat");
    }
}

}  // namespace
