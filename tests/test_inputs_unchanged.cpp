// Every function that takes an Image by const reference leaves it as it was: pixels, spec and
// attributes, whether the call succeeds or fails.

#include <functional>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

class InputsUnchanged : public LibraryTest {};

TEST_F(InputsUnchanged, ByEveryFunctionOnSuccessAndOnFailure) {
    ip::Image rgba = makeGradient(16, 12, 4);
    ip::setColorSpace(rgba, "linear");
    rgba.buffer.specmod().attribute("Software", "test");
    rgba.properties["shot"] = "010";
    ip::Image rgb = makeGradient(16, 12, 3, OIIO::TypeDesc::UINT8);
    ip::setColorSpace(rgb, "sRGB");
    const ip::Image& a = rgba;
    const ip::Image& b = rgb;
    const ip::Image uints = makeGradient(4, 4, 1, OIIO::TypeDesc::UINT32);
    const OIIO::ROI half(0, 8, 0, 6);
    const std::vector<int> order{2, 1, 0};
    const std::filesystem::path out = temp.path();
    const std::filesystem::path missing = temp / "no" / "such" / "folder";
    ip::Image destination;

    // Each entry calls one function with arguments that succeed and with arguments that fail.
    const std::vector<std::pair<const char*, std::function<void()>>> calls = {
        {"accessors",
         [&] { ip::getColorSpace(a), ip::getNumChannels(a), ip::getPixelValue(a, 1, 1, 0, 2); }},
        {"getPixelUIntValue",
         [&] { ip::getPixelUIntValue(a, 1, 1, 0, 0), ip::getPixelUIntValue(uints, 1, 1, 0, 0); }},
        {"getMetadataFromImage", [&] { ip::getMetadataFromImage(a); }},
        {"writeImage",
         [&] { ip::writeImage(a, out / "a.exr"), ip::writeImage(b, out / "b.png", 3); }},
        {"writeImage mismatch",
         [&] { ip::writeImage(a, out / "a.jpg"), ip::writeImage(a, out / "a.nope"); }},
        {"writeImage missing", [&] { ip::writeImage(a, missing / "a.exr"); }},
        {"writeMultiPartEXR",
         [&] {
             ip::writeMultiPartEXR({"one", "two"}, {a, b}, out / "p.exr");
         }},
        {"writeMultiPartEXR bad",
         [&] {
             ip::writeMultiPartEXR({"one"}, {a, b}, out / "q.exr");
         }},
        {"writeAnimatedGif",
         [&] {
             ip::writeAnimatedGif({a, a}, out / "anim.gif", 12.0f);
         }},
        {"writeAnimatedGif bad",
         [&] {
             ip::writeAnimatedGif({b, a}, out / "still.png", 12.0f);
         }},
        {"cut", [&] { ip::cut(a, half), ip::fit(a, half), ip::resize(a, OIIO::ROI(0, 0, 0, 0)); }},
        {"rotate", [&] { ip::rotate(a, 0.3f, true), ip::rotate(a, 0.3f, false); }},
        {"paste", [&] { destination = b, ip::paste(destination, 2, 3, a, half); }},
        {"over", [&] { ip::over(a, a, OIIO::ROI()), ip::over(a, b, OIIO::ROI()); }},
        {"preMultiply", [&] { ip::preMultiply(a, ip::PreMultMode::Repremult); }},
        {"preMultiply bad", [&] { ip::preMultiply(a, static_cast<ip::PreMultMode>(7)); }},
        {"colorConvert",
         [&] { ip::colorConvert(a, "linear", "sRGB"), ip::colorConvert(a, "x", "y"); }},
        {"shuffle",
         [&] {
             ip::shuffle(a, 3, order), ip::shuffle(a, 3, std::vector<int>{9, 9});
         }},
        {"channelAppend", [&] { ip::channelAppend(a, b), ip::channelAppend(a, ip::Image{}); }},
        {"invert", [&] { ip::invert(a), ip::invert(a, OIIO::ROI(100, 120, 100, 120)); }},
        {"invertChannel", [&] { ip::invertChannel(a, "G"), ip::invertChannel(a, "nope"); }},
        {"normalize", [&] { ip::normalize(a, 0.0f, 1.0f), ip::normalize(a, 0.0f, 1.0f, {"Z"}); }},
    };

    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        const ip::Image rgbaBefore = rgba;
        const ip::Image rgbBefore = rgb;
        call();
        EXPECT_TRUE(sameImage(rgba.buffer, rgbaBefore.buffer));
        EXPECT_TRUE(sameImage(rgb.buffer, rgbBefore.buffer));
        EXPECT_EQ(rgba.properties, rgbaBefore.properties);
    }
}

}  // namespace
