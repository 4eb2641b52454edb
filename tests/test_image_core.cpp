// The Image value, the colour-space tag, pixel access, the Timer and the base helpers.

#include <vorel/base/path_utils.h>
#include <vorel/base/str_utils.h>
#include <vorel/base/timing.h>

#include "test_support.h"

using namespace vorel::test;

namespace {

class ImageCore : public LibraryTest {};

TEST_F(ImageCore, SpecialMembersCarryBufferAndProperties) {
    ip::Image a = makeGradient(3, 2, 3), c = makeGradient(2, 2, 1);
    a.properties = {{"shot", "010"}};
    const ip::Image copy(a);
    ip::Image b(std::move(a));
    row("moved from: properties", std::to_string(a.properties.size()));
    a = copy;  // copy-assigning into a moved-from ImageBuf would crash OpenImageIO 2.4.7
    row("a copy assigned to it", describe(a));
    c = std::move(b);  // the old map goes, the moved-from one is left empty
    row("moved over another", describe(c));
    row("  left behind: properties", std::to_string(b.properties.size()));
    row("channels of the empty Image", std::to_string(ip::getNumChannels(ip::Image{})));
}

TEST_F(ImageCore, ColourTagAndPixelAccess) {
    ip::Image image = makeGradient(2, 1, 3);
    for (const std::string name : {"unknown", "", "Unknown", "sRGB", "ACEScg"}) {
        ip::setColorSpace(image, name);
        row("tag '" + name + "'", describe(image));
    }
    // Column, row, depth, channel; 0 outside the window. Unsigned integers exactly, beyond a
    // float's 24 bits; a channel beyond the image's would crash OpenImageIO 2.4.7's get_pixels.
    const ip::Image gradient = makeGradient(4, 3, 3), empty,
                    bytes = makeGradient(2, 2, 1, T::UINT8);
    row("floats at (2, 1) channel 1, (10, 1), (-1, 0)",
        fmt::format("{} {} {}", ip::getPixelValue(gradient, 2, 1, 0, 1),
                    ip::getPixelValue(gradient, 10, 1, 0, 0),
                    ip::getPixelValue(gradient, -1, 0, 0, 0)));
    std::vector<std::uint32_t> samples{0u, 16777217u, 4294967295u, 7u};
    const ip::Image uints = ip::createImageFromData(samples.data(), 2, 2, 1, T::UINT32),
                    rgba = makeGradient(2, 2, 4, T::UINT32);
    const std::tuple<const char*, const ip::Image*, int, int, int> calls[] = {
        {"(1, 0)", &uints, 1, 0, 0},         {"(0, 1)", &uints, 0, 1, 0},
        {"(1, 1)", &uints, 1, 1, 0},         {"channel -1", &uints, 0, 0, -1},
        {"channel 1 of 1", &uints, 0, 0, 1}, {"channel 4 of 4", &rgba, 0, 0, 4},
        {"UINT8", &bytes, 1, 1, 0},          {"FLOAT", &gradient, 1, 1, 0},
        {"empty", &empty, 0, 0, 0}};
    for (const auto& [label, source, x, y, channel] : calls)
        row(std::string("unsigned ") + label,
            std::to_string(ip::getPixelUIntValue(*source, x, y, 0, channel)));
}

TEST_F(ImageCore, TimerMeasuresAndWarnsOnWrongUse) {
    vorel::base::Timer timer(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(timer.stop());
    const double first = timer.duration();
    EXPECT_GE(first, 5.0);
    row("stop again", timer.stop());
    timer.start();
    row("start again", std::string());
    EXPECT_TRUE(timer.stop());
    EXPECT_GE(timer.duration(), first);  // the stretches add up
    row("duration of a timer never started", std::to_string(vorel::base::Timer(false).duration()));
}

TEST(BaseLibrary, PathsAndLowerCase) {
    EXPECT_EQ(vorel::base::convertPathToString(std::filesystem::path("/tmp/a b/ünï.PNG")),
              "/tmp/a b/ünï.PNG");
    EXPECT_EQ(vorel::base::strUtils::toLower(".J2K.TiFF"), ".j2k.tiff");
}

}  // namespace
