// The metadata bridge: OpenImageIO attributes to typed values and back, through real files.

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using T = OIIO::TypeDesc;
using V = ip::MetadataValue;

namespace {

class Metadata : public vorel::test::LibraryTest {};

TEST_F(Metadata, IntFloatStringAndColourTagSurviveAnExrFile) {
    ip::Image image = vorel::test::makeGradient(4, 3, 3);
    // OpenEXR's reader states "Linear" whatever was written; it arrives as a string.
    const ip::MetadataMap written{{"vorel:frame", 42},
                                  {"vorel:exposure", 1.5f},
                                  {"vorel:artist", "Ada"},
                                  {"oiio:ColorSpace", "Linear"}};
    ASSERT_TRUE(ip::addMetadataToImage(image, written));
    EXPECT_EQ(ip::getColorSpace(image), "Linear");  // without setColorSpace's warning
    EXPECT_TRUE(log.records().empty());
    vorel::test::writeWithOIIO(image.buffer, temp / "meta.exr");
    const ip::MetadataMap read = ip::getMetadataFromImage(ip::readImage(temp / "meta.exr"));
    for (const auto& [name, value] : written) {
        EXPECT_EQ(read.at(name), value) << name;
    }
    expectNoWarnings();
}

TEST_F(Metadata, ArraysBecomeVectorsOtherTypesAnEmptyStringAndOnlyScalarsGoBack) {
    ip::Image image = vorel::test::makeGradient(2, 2, 1);
    OIIO::ImageSpec& spec = image.buffer.specmod();
    const int triple[3] = {7, -8, 9};
    const float single = 0.25f;
    const double ratio = 2.5;
    spec.attribute("vorel:triple", T(T::INT32, 3), triple);
    spec.attribute("vorel:single", T(T::FLOAT, 1), &single);
    spec.attribute("vorel:ratio", T::DOUBLE, &ratio);
    const ip::MetadataMap metadata = ip::getMetadataFromImage(image);
    expectOnlyMessage(spdlog::level::warn, "Unsupported OIIO metadata value type");
    EXPECT_EQ(metadata, (ip::MetadataMap{{"vorel:triple", std::vector<int>{7, -8, 9}},
                                         {"vorel:single", std::vector<float>{0.25f}},
                                         {"vorel:ratio", std::string()}}));
    // Vectors don't go back.
    log.clear();
    EXPECT_FALSE(ip::addMetadataToImage(image, metadata));
    expectOnlyMessage(spdlog::level::err, "Unsupported metadata value type");
}

}  // namespace
