// The Image value, the colour-space tag, pixel access, the Timer and the base helpers.

#include <thread>

#include <vorel/base/path_utils.h>
#include <vorel/base/str_utils.h>
#include <vorel/base/timing.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

class ImageCore : public LibraryTest {};

TEST_F(ImageCore, SpecialMembersCarryBufferAndProperties) {
    const ip::Image empty;
    EXPECT_FALSE(empty.buffer.initialized());
    EXPECT_EQ(ip::getNumChannels(empty), 0);
    EXPECT_TRUE(empty.properties.empty());
    EXPECT_FALSE(ip::Image(empty).buffer.initialized());

    ip::Image a = makeGradient(4, 3, 3);
    a.properties = {{"shot", "010"}, {"take", "2"}};
    const ip::Image copy(a);
    EXPECT_TRUE(sameImage(copy.buffer, a.buffer));
    EXPECT_EQ(copy.properties, a.properties);

    ip::Image b(std::move(a));
    EXPECT_TRUE(a.properties.empty());
    EXPECT_EQ(b.properties.at("shot"), "010");
    EXPECT_TRUE(sameImage(b.buffer, copy.buffer));

    ip::Image& self = b;
    b = self;
    b = std::move(self);
    EXPECT_EQ(b.properties.size(), 2u);
    EXPECT_TRUE(sameImage(b.buffer, copy.buffer));

    ip::Image c = makeGradient(2, 2, 1);
    c.properties = {{"old", "entry"}};
    c = std::move(b);
    EXPECT_EQ(c.properties.count("old"), 0u);
    EXPECT_EQ(c.properties.size(), 2u);
    EXPECT_TRUE(b.properties.empty());
    EXPECT_EQ(ip::getNumChannels(c), 3);
    expectNoWarnings();
}

TEST_F(ImageCore, ColorSpaceTagIsStoredAsGivenAndWarnsOnlyOnEmptyOrUnknown) {
    ip::Image image = makeGradient(2, 2, 3);
    EXPECT_EQ(ip::getColorSpace(image), "");
    const float before = ip::getPixelValue(image, 1, 1, 0, 2);
    const std::string warning =
        "Setting empty or unknown color space, this is likely to lead to compositing errors";
    for (const std::string name : {"unknown", ""}) {
        log.clear();
        ip::setColorSpace(image, name);
        expectOnlyMessage(spdlog::level::warn, warning);
        EXPECT_EQ(ip::getColorSpace(image), name);
    }
    for (const std::string name : {"Unknown", "unknown ", "sRGB", "ACEScg"}) {
        log.clear();
        ip::setColorSpace(image, name);
        EXPECT_TRUE(log.records().empty()) << name;
        EXPECT_EQ(ip::getColorSpace(image), name);
    }
    EXPECT_EQ(image.buffer.spec().get_string_attribute("oiio:ColorSpace"), "ACEScg");
    EXPECT_EQ(ip::getPixelValue(image, 1, 1, 0, 2), before);
    EXPECT_EQ(ip::getColorSpace(ip::Image{}), "");
}

TEST_F(ImageCore, PixelAccessReadsFloatViewAndExactUnsignedIntegers) {
    // Column, row, depth, channel: (2, 1) channel 1 of a 3-channel float gradient of width 4.
    const ip::Image gradient = makeGradient(4, 3, 3);
    EXPECT_FLOAT_EQ(ip::getPixelValue(gradient, 2, 1, 0, 1), ((2 + 4 * 1) * 3 + 1 + 1) * 0.001f);
    EXPECT_EQ(ip::getPixelValue(gradient, 10, 1, 0, 0), 0.0f);
    EXPECT_EQ(ip::getPixelValue(gradient, -1, 0, 0, 0), 0.0f);
    expectNoWarnings();

    std::vector<std::uint32_t> samples{0u, 16777217u, 4294967295u, 7u};
    const ip::Image uints =
        ip::createImageFromData(samples.data(), 2, 2, 1, OIIO::TypeDesc::UINT32);
    EXPECT_EQ(ip::getPixelUIntValue(uints, 1, 0, 0, 0), 16777217u);  // beyond a float's 24 bits
    EXPECT_EQ(ip::getPixelUIntValue(uints, 0, 1, 0, 0), 4294967295u);
    EXPECT_EQ(ip::getPixelUIntValue(uints, 1, 1, 0, 0), 7u);
    expectNoWarnings();

    for (const OIIO::TypeDesc& type :
         {OIIO::TypeDesc(OIIO::TypeDesc::UINT8), OIIO::TypeDesc(OIIO::TypeDesc::UINT16),
          OIIO::TypeDesc(OIIO::TypeDesc::FLOAT)}) {
        log.clear();
        const ip::Image other = makeGradient(2, 2, 1, type);
        EXPECT_EQ(ip::getPixelUIntValue(other, 1, 1, 0, 0), 0u);
        expectOnlyMessage(spdlog::level::err, std::string("getPixelUIntValue requires UINT image, "
                                                          "but image is ") +
                                                  type.c_str());
        EXPECT_GT(ip::getPixelValue(other, 1, 1, 0, 0), 0.0f);
    }
    log.clear();
    EXPECT_EQ(ip::getPixelUIntValue(ip::Image{}, 0, 0, 0, 0), 0u);
    EXPECT_EQ(log.records().size(), 1u);
}

TEST_F(ImageCore, TimerMeasuresAndWarnsOnWrongUse) {
    using vorel::base::Timer;
    const std::string restart =
        "Timer start called on a running or finished timer, restarting timer";
    const std::string notRunning = "Timer stop called on a non running timer, doing nothing";
    const std::string early =
        "Timer duration called on a running or pending timer, value may not be what you expect.  "
        "Consider calling stop() first";

    Timer timer(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(timer.stop());
    const double first = timer.duration();
    EXPECT_GE(first, 5.0);
    EXPECT_LT(first, 5000.0);
    EXPECT_TRUE(log.records().empty());

    EXPECT_FALSE(timer.stop());
    expectOnlyMessage(spdlog::level::warn, notRunning);
    EXPECT_EQ(timer.duration(), first);

    log.clear();
    timer.start();
    expectOnlyMessage(spdlog::level::warn, restart);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(timer.stop());
    EXPECT_GE(timer.duration(), first + 5.0);  // the stretches add up

    log.clear();
    Timer pending(false);
    EXPECT_EQ(pending.duration(), 0.0);
    expectOnlyMessage(spdlog::level::warn, early);
    EXPECT_EQ(log.records()[0].filename, "base/include/vorel/base/timing.h");
}

TEST(BaseLibrary, PathsAndLowerCase) {
    EXPECT_EQ(vorel::base::convertPathToString(std::filesystem::path("/tmp/a b/ünï.PNG")),
              "/tmp/a b/ünï.PNG");
    EXPECT_EQ(vorel::base::strUtils::toLower(".PnG"), ".png");
    EXPECT_EQ(vorel::base::strUtils::toLower(".J2K.TiFF"), ".j2k.tiff");
    EXPECT_EQ(vorel::base::strUtils::toLower(""), "");
}

}  // namespace
