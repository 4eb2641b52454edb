// The Image value, the colour-space tag, pixel access, the Timer and the base helpers.

#include <thread>

#include <vorel/base/path_utils.h>
#include <vorel/base/str_utils.h>
#include <vorel/base/timing.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using namespace vorel::test;
using spdlog::level::err;
using spdlog::level::warn;

namespace {

class ImageCore : public LibraryTest {};

TEST_F(ImageCore, SpecialMembersCarryBufferAndProperties) {
    ip::Image a = makeGradient(4, 3, 3), c = makeGradient(2, 2, 1);
    a.properties = {{"shot", "010"}};
    const ip::Image copy(a);
    ip::Image b(std::move(a));
    EXPECT_TRUE(a.properties.empty());
    // Copy-assigning into a moved-from Image would crash OpenImageIO 2.4.7's ImageBuf.
    a = copy;
    EXPECT_TRUE(sameImage(a.buffer, b.buffer));
    c = std::move(b);  // the old map goes, the moved-from one is left empty
    EXPECT_TRUE(b.properties.empty());
    EXPECT_EQ(c.properties, copy.properties);
    EXPECT_EQ(a.properties, copy.properties);
    EXPECT_EQ(ip::getNumChannels(c), 3);
    EXPECT_EQ(ip::getNumChannels(ip::Image{}), 0);
    expectNoWarnings();
}

TEST_F(ImageCore, ColorSpaceTagIsStoredAsGivenAndWarnsOnlyOnEmptyOrUnknown) {
    ip::Image image = makeGradient(2, 2, 3);
    EXPECT_EQ(ip::getColorSpace(image), "");
    for (const std::string name : {"unknown", "", "Unknown", "sRGB", "ACEScg"}) {
        ip::setColorSpace(image, name);
        if (name == "unknown" || name.empty())
            expectOnly(warn,
                       "Setting empty or unknown color space, this is likely to lead to "
                       "compositing errors");
        EXPECT_TRUE(log.records().empty()) << name;
        EXPECT_EQ(image.buffer.spec().get_string_attribute("oiio:ColorSpace"), name);
    }
    EXPECT_EQ(pixelsOf(image), pixelsOf(makeGradient(2, 2, 3)));  // only the tag changes
}

TEST_F(ImageCore, PixelAccessReadsFloatsAndExactUnsignedIntegers) {
    // Column, row, depth, channel: (2, 1) channel 1 of a 3-channel float gradient of width 4.
    const ip::Image gradient = makeGradient(4, 3, 3);
    EXPECT_FLOAT_EQ(ip::getPixelValue(gradient, 2, 1, 0, 1), ((2 + 4 * 1) * 3 + 1 + 1) * 0.001f);
    EXPECT_EQ(ip::getPixelValue(gradient, 10, 1, 0, 0) + ip::getPixelValue(gradient, -1, 0, 0, 0),
              0);
    std::vector<std::uint32_t> samples{0u, 16777217u, 4294967295u, 7u};
    const ip::Image uints = ip::createImageFromData(samples.data(), 2, 2, 1, OIIO::TypeUInt32);
    for (const int i : {1, 2, 3})  // beyond a float's 24 bits
        EXPECT_EQ(ip::getPixelUIntValue(uints, i % 2, i / 2, 0, 0), samples[i]);
    expectNoWarnings();
    for (const OIIO::TypeDesc& type : {OIIO::TypeUInt8, OIIO::TypeFloat, OIIO::TypeUnknown}) {
        const ip::Image image = type.basetype ? makeGradient(2, 2, 1, type) : ip::Image{};
        EXPECT_EQ(ip::getPixelUIntValue(image, 1, 1, 0, 0), 0u);
        expectOnly(err, std::string("getPixelUIntValue requires UINT image, but image is ") +
                            type.c_str());
    }
    // A channel beyond the image's would crash OpenImageIO 2.4.7's get_pixels.
    const ip::Image rgba = makeGradient(2, 2, 4, OIIO::TypeUInt32);
    for (const auto& [image, channel] : {std::pair{&uints, -1}, {&uints, 1}, {&rgba, 4}}) {
        EXPECT_EQ(ip::getPixelUIntValue(*image, 0, 0, 0, channel), 0u);
        expectOnly(err, "get_pixels failed");
    }
}

TEST_F(ImageCore, TimerMeasuresAndWarnsOnWrongUse) {
    vorel::base::Timer timer(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(timer.stop());
    const double first = timer.duration();
    EXPECT_GE(first, 5.0);
    EXPECT_FALSE(timer.stop());
    expectOnly(warn, "Timer stop called on a non running timer, doing nothing");
    timer.start();
    expectOnly(warn, "Timer start called on a running or finished timer, restarting timer");
    EXPECT_TRUE(timer.stop());
    EXPECT_GE(timer.duration(), first);  // the stretches add up
    EXPECT_EQ(vorel::base::Timer(false).duration(), 0.0);
    EXPECT_EQ(log.records().at(0).filename, "base/include/vorel/base/timing.h");
    expectOnly(warn,
               "Timer duration called on a running or pending timer, value may not be what "
               "you expect.  Consider calling stop() first");
}

TEST(BaseLibrary, PathsAndLowerCase) {
    EXPECT_EQ(vorel::base::convertPathToString(std::filesystem::path("/tmp/a b/ünï.PNG")),
              "/tmp/a b/ünï.PNG");
    EXPECT_EQ(vorel::base::strUtils::toLower(".J2K.TiFF"), ".j2k.tiff");
}

}  // namespace
