// Reading files and memory into Images, through real files written by OpenImageIO.

#include <fstream>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;
using vorel::test::writeWithOIIO;

namespace {

class Reading : public LibraryTest {};

TEST_F(Reading, KeepsPixelTypeChannelsAndAttributesOfTheFile) {
    struct Case {
        const char* name;
        int channels;
        OIIO::TypeDesc format;
    };
    for (const Case& c :
         {Case{"rgb8.png", 3, OIIO::TypeDesc::UINT8}, Case{"grey16.png", 1, OIIO::TypeDesc::UINT16},
          Case{"rgb16.tif", 3, OIIO::TypeDesc::UINT16},
          Case{"rgbaf.exr", 4, OIIO::TypeDesc::FLOAT}}) {
        SCOPED_TRACE(c.name);
        const ip::Image source = makeGradient(7, 5, c.channels, c.format);
        writeWithOIIO(source.buffer, temp / c.name);

        const ip::Image read = ip::readImage(temp / c.name);
        ASSERT_TRUE(read.buffer.initialized());
        EXPECT_EQ(read.buffer.spec().format, c.format);
        EXPECT_EQ(ip::getNumChannels(read), c.channels);
        EXPECT_EQ(read.buffer.storage(), OIIO::ImageBuf::LOCALBUFFER);
        EXPECT_TRUE(read.properties.empty());
        EXPECT_EQ(OIIO::ImageBufAlgo::compare(read.buffer, source.buffer, 0, 0).nfail, 0u);
        const ip::ImageSpec size = ip::getImageSpec(temp / c.name);
        EXPECT_EQ(size.width, 7);
        EXPECT_EQ(size.height, 5);
    }
    // The reader's colour tag comes through: OpenEXR reads back as "Linear".
    EXPECT_EQ(ip::getColorSpace(ip::readImage(temp / "rgbaf.exr")), "Linear");
    expectNoWarnings();
}

TEST_F(Reading, TakesOnlyTheFirstSubimageOfAMultiPartFile) {
    const ip::Image first = makeGradient(8, 6, 3, OIIO::TypeDesc::HALF);
    const ip::Image second = makeGradient(8, 6, 1, OIIO::TypeDesc::FLOAT, 0.5f);
    const std::string file = (temp / "parts.exr").string();
    auto out = OIIO::ImageOutput::create(file);
    ASSERT_TRUE(out);
    const OIIO::ImageSpec specs[] = {first.buffer.spec(), second.buffer.spec()};
    ASSERT_TRUE(out->open(file, 2, specs));
    ASSERT_TRUE(first.buffer.write(out.get()));
    ASSERT_TRUE(out->open(file, specs[1], OIIO::ImageOutput::AppendSubimage));
    ASSERT_TRUE(second.buffer.write(out.get()));
    ASSERT_TRUE(out->close());

    const ip::Image read = ip::readImage(file);
    ASSERT_TRUE(read.buffer.initialized());
    EXPECT_EQ(ip::getNumChannels(read), 3);
    EXPECT_EQ(read.buffer.spec().format, OIIO::TypeDesc::HALF);
    EXPECT_EQ(OIIO::ImageBufAlgo::compare(read.buffer, first.buffer, 0, 0).nfail, 0u);
}

TEST_F(Reading, MissingAndGarbageFilesFailWithOneLineAndNoThrow) {
    std::ofstream(temp / "garbage.png", std::ios::binary) << "this is not a PNG file at all";
    for (const std::string name : {"missing.png", "garbage.png"}) {
        SCOPED_TRACE(name);
        const std::string file = (temp / name).string();
        log.clear();
        EXPECT_FALSE(ip::readImage(file).buffer.initialized());
        const ip::ImageSpec size = ip::getImageSpec(file);
        EXPECT_EQ(size.width + size.height, 0);
        // One line each, the reader's at warn and the size query's at err, both with
        // OpenImageIO's reason after the file name; the source location names the library.
        const auto records = log.records();
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(records[0].level, spdlog::level::warn);
        EXPECT_EQ(records[1].level, spdlog::level::err);
        const std::string read = "Couldn't read image " + file + ":\n";
        const std::string open = "Couldn't open image " + file + ":\n";
        EXPECT_EQ(records[0].message.substr(0, read.size()), read);
        EXPECT_GT(records[0].message.size(), read.size());
        EXPECT_EQ(records[1].message.substr(0, open.size()), open);
        EXPECT_EQ(records[0].funcname, "vorel_usd_image_processing");
        EXPECT_EQ(records[0].filename, "usd/image_processing/src/image_io.cpp");
    }
}

TEST_F(Reading, CreateImageFromDataCopiesTheCallersPixels) {
    std::vector<std::uint16_t> data{1, 2, 3, 4, 5, 6, 65535, 0, 7, 8, 9, 10};
    const ip::Image image = ip::createImageFromData(data.data(), 2, 2, 3, OIIO::TypeDesc::UINT16);
    std::fill(data.begin(), data.end(), 0);
    ASSERT_TRUE(image.buffer.initialized());
    EXPECT_EQ(image.buffer.spec().format, OIIO::TypeDesc::UINT16);
    EXPECT_EQ(ip::getNumChannels(image), 3);
    std::vector<std::uint16_t> back(12);
    ASSERT_TRUE(image.buffer.get_pixels(image.buffer.roi(), OIIO::TypeDesc::UINT16, back.data()));
    EXPECT_EQ(back, (std::vector<std::uint16_t>{1, 2, 3, 4, 5, 6, 65535, 0, 7, 8, 9, 10}));
    EXPECT_EQ(ip::getColorSpace(image), "");
    EXPECT_TRUE(image.properties.empty());
    expectNoWarnings();
}

}  // namespace
