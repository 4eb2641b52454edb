// The metadata bridge: OpenImageIO attributes to typed values and back, through real files.

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::writeWithOIIO;

namespace {

class Metadata : public LibraryTest {};

TEST_F(Metadata, IntFloatStringAndColourTagSurviveAnExrFile) {
    ip::Image image = makeGradient(4, 3, 3);
    image.properties["note"] = "carried, never stored";
    const ip::MetadataMap written{{"vorel:frame", 42},
                                  {"vorel:exposure", 1.5f},
                                  {"vorel:artist", std::string("Ada")},
                                  {"oiio:ColorSpace", std::string("linear")}};
    ASSERT_TRUE(ip::addMetadataToImage(image, written));
    // The tag is set without setColorSpace's warning.
    EXPECT_EQ(ip::getColorSpace(image), "linear");
    EXPECT_TRUE(log.records().empty());

    writeWithOIIO(image.buffer, temp / "meta.exr");
    const ip::MetadataMap read = ip::getMetadataFromImage(ip::readImage(temp / "meta.exr"));
    EXPECT_EQ(read.at("vorel:frame"), ip::MetadataValue(42));
    EXPECT_EQ(read.at("vorel:exposure"), ip::MetadataValue(1.5f));
    EXPECT_EQ(read.at("vorel:artist"), ip::MetadataValue(std::string("Ada")));
    // OpenEXR's reader states its own tag, "Linear"; it still arrives as a string.
    EXPECT_EQ(read.at("oiio:ColorSpace"), ip::MetadataValue(std::string("Linear")));
    // The reader's own attributes are listed too; the map of strings is not metadata.
    EXPECT_EQ(read.count("compression"), 1u);
    EXPECT_EQ(read.count("note"), 0u);
    expectNoWarnings();
}

TEST_F(Metadata, ArraysBecomeVectorsAndOtherTypesEmptyStrings) {
    ip::Image image = makeGradient(2, 2, 1);
    OIIO::ImageSpec& spec = image.buffer.specmod();
    const int triple[3] = {7, -8, 9};
    spec.attribute("vorel:triple", OIIO::TypeDesc(OIIO::TypeDesc::INT32, 3), triple);
    const float single = 0.25f;
    spec.attribute("vorel:single", OIIO::TypeDesc(OIIO::TypeDesc::FLOAT, 1), &single);
    const double ratio = 2.5;
    spec.attribute("vorel:ratio", OIIO::TypeDesc::DOUBLE, &ratio);
    // An aggregate without array length is no array: it takes the float test.
    const float colour[3] = {0.5f, 0.6f, 0.7f};
    spec.attribute("vorel:colour", OIIO::TypeColor, colour);
    const ip::Image before = image;

    const ip::MetadataMap metadata = ip::getMetadataFromImage(image);
    expectOnlyMessage(spdlog::level::warn, "Unsupported OIIO metadata value type");
    EXPECT_EQ(metadata.size(), 4u);
    EXPECT_EQ(metadata.at("vorel:triple"), ip::MetadataValue(std::vector<int>{7, -8, 9}));
    EXPECT_EQ(metadata.at("vorel:single"), ip::MetadataValue(std::vector<float>{0.25f}));
    EXPECT_EQ(metadata.at("vorel:ratio"), ip::MetadataValue(std::string()));
    EXPECT_EQ(metadata.at("vorel:colour").index(), 2u);
    EXPECT_TRUE(vorel::test::sameImage(image.buffer, before.buffer));

    // The vectors can't go back.
    log.clear();
    EXPECT_FALSE(ip::addMetadataToImage(image, metadata));
    expectOnlyMessage(spdlog::level::err, "Unsupported metadata value type");

    // The unsupported double comes back as an empty string attribute under its name.
    log.clear();
    ASSERT_TRUE(ip::addMetadataToImage(image, {{"vorel:ratio", metadata.at("vorel:ratio")}}));
    const OIIO::ParamValue* replaced = image.buffer.spec().find_attribute("vorel:ratio");
    ASSERT_NE(replaced, nullptr);
    EXPECT_EQ(replaced->type(), OIIO::TypeString);
    EXPECT_EQ(replaced->get_string(), "");
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Metadata, AVectorStopsTheWriteAfterTheEntriesBeforeIt) {
    ip::MetadataMap metadata;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        metadata[std::string("vorel:") + name] = std::string(name);
        if (metadata.size() == 4) {
            metadata["vorel:curve"] = std::vector<float>{1.0f, 2.0f};
        }
    }
    std::vector<std::string> expectedWritten;
    std::vector<std::string> expectedNotTried;
    bool reachedVector = false;
    for (const auto& entry : metadata) {
        if (entry.second.index() == 4) {
            reachedVector = true;
        } else {
            (reachedVector ? expectedNotTried : expectedWritten).push_back(entry.first);
        }
    }
    // Only meaningful with strings on both sides of the vector in iteration order.
    ASSERT_FALSE(expectedWritten.empty());
    ASSERT_FALSE(expectedNotTried.empty());

    ip::Image image = makeGradient(2, 2, 1);
    EXPECT_FALSE(ip::addMetadataToImage(image, metadata));
    expectOnlyMessage(spdlog::level::err, "Unsupported metadata value type");
    const OIIO::ImageSpec& spec = image.buffer.spec();
    for (const std::string& name : expectedWritten) {
        EXPECT_NE(spec.find_attribute(name), nullptr) << name;
    }
    for (const std::string& name : expectedNotTried) {
        EXPECT_EQ(spec.find_attribute(name), nullptr) << name;
    }
    EXPECT_EQ(spec.find_attribute("vorel:curve"), nullptr);
}

TEST_F(Metadata, EmptyImageAndReplacedAttributes) {
    EXPECT_TRUE(ip::getMetadataFromImage(ip::Image{}).empty());

    ip::Image image = makeGradient(2, 2, 1);
    ip::setColorSpace(image, "sRGB");
    ASSERT_TRUE(ip::addMetadataToImage(image, {}));
    EXPECT_EQ(ip::getMetadataFromImage(image),
              (ip::MetadataMap{{"oiio:ColorSpace", std::string("sRGB")}}));

    // A new value replaces the attribute of that name, also with another type.
    ASSERT_TRUE(ip::addMetadataToImage(image, {{"vorel:take", 3}}));
    ASSERT_TRUE(ip::addMetadataToImage(image, {{"vorel:take", std::string("three")}}));
    const ip::MetadataMap metadata = ip::getMetadataFromImage(image);
    EXPECT_EQ(metadata.size(), 2u);
    EXPECT_EQ(metadata.at("vorel:take"), ip::MetadataValue(std::string("three")));
    EXPECT_TRUE(log.records().empty());
}

}  // namespace
