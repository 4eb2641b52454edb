// Every function that takes an Image by const reference leaves it as it was: pixels, spec and
// attributes, whether the call succeeds or fails.

#include <functional>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

struct Call {
    const char* name;
    std::function<void(const ip::Image& rgba, const ip::Image& rgb,
                       const std::filesystem::path& folder)>
        run;
};

class InputsUnchanged : public LibraryTest {};

TEST_F(InputsUnchanged, ByEveryFunctionOnSuccessAndOnFailure) {
    ip::Image rgba = makeGradient(16, 12, 4);
    ip::setColorSpace(rgba, "linear");
    rgba.buffer.specmod().attribute("Software", "test");
    rgba.properties["shot"] = "010";
    ip::Image rgb = makeGradient(16, 12, 3, OIIO::TypeDesc::UINT8);
    ip::setColorSpace(rgb, "sRGB");
    const ip::Image uints = makeGradient(4, 4, 1, OIIO::TypeDesc::UINT32);
    const OIIO::ROI half(0, 8, 0, 6);
    const OIIO::ROI outside(100, 120, 100, 120);
    const std::vector<int> order{2, 1, 0};
    const std::filesystem::path missing = temp / "no" / "such" / "folder";

    const std::vector<Call> calls = {
        {"getColorSpace", [](auto& a, auto&, auto&) { ip::getColorSpace(a); }},
        {"getNumChannels", [](auto& a, auto&, auto&) { ip::getNumChannels(a); }},
        {"getPixelValue", [](auto& a, auto&, auto&) { ip::getPixelValue(a, 1, 1, 0, 2); }},
        {"getPixelUIntValue",
         [&](auto& a, auto&, auto&) {
             ip::getPixelUIntValue(a, 1, 1, 0, 0);  // refused: not UINT32
             ip::getPixelUIntValue(uints, 1, 1, 0, 0);
         }},
        {"getMetadataFromImage", [](auto& a, auto&, auto&) { ip::getMetadataFromImage(a); }},
        {"writeImage",
         [&](auto& a, auto& b, auto& folder) {
             ip::writeImage(a, folder / "a.exr", -1);
             ip::writeImage(b, folder / "b.png", 3);
             ip::writeImage(a, folder / "a.jpg", -1);  // colour mismatch, still written
             ip::writeImage(a, missing / "a.exr", -1);
             ip::writeImage(a, folder / "a.unknownext", -1);
         }},
        {"writeMultiPartEXR",
         [&](auto& a, auto& b, auto& folder) {
             const std::vector<ip::Image> images{a, b};
             ip::writeMultiPartEXR({"one", "two"}, images, folder / "parts.exr");
             ip::writeMultiPartEXR({"one"}, images, folder / "bad.exr");
             ip::writeMultiPartEXR({"one", "two"}, images, missing / "parts.exr");
         }},
        {"writeAnimatedGif",
         [&](auto& a, auto& b, auto& folder) {
             ip::writeAnimatedGif({a, a}, folder / "anim.gif", 12.0f);
             ip::writeAnimatedGif({b, b}, missing / "anim.gif", 12.0f);
         }},
        {"cut",
         [&](auto& a, auto&, auto&) {
             ip::cut(a, half);
             ip::cut(ip::Image{}, half);
         }},
        {"fit", [&](auto& a, auto&, auto&) { ip::fit(a, OIIO::ROI(0, 8, 0, 8)); }},
        {"resize",
         [&](auto& a, auto&, auto&) {
             ip::resize(a, half);
             ip::resize(a, OIIO::ROI(0, 0, 0, 0));
         }},
        {"rotate",
         [](auto& a, auto&, auto&) {
             ip::rotate(a, 0.3f, true);
             ip::rotate(a, 0.3f, false);
         }},
        {"paste (source)",
         [&](auto& a, auto& b, auto&) {
             ip::Image destination = b;
             ip::paste(destination, 2, 3, a, half);
             ip::paste(destination, 2, 3, ip::Image{}, half);
         }},
        {"over",
         [](auto& a, auto& b, auto&) {
             ip::over(a, a, OIIO::ROI());
             ip::over(a, b, OIIO::ROI());  // the background has no alpha: fails
         }},
        {"preMultiply",
         [](auto& a, auto&, auto&) {
             ip::preMultiply(a, ip::PreMultMode::Premult);
             ip::preMultiply(a, ip::PreMultMode::Repremult);
             ip::preMultiply(a, static_cast<ip::PreMultMode>(7));
         }},
        {"colorConvert",
         [](auto& a, auto&, auto&) {
             ip::colorConvert(a, "linear", "sRGB");
             ip::colorConvert(a, "linear", "no such space");
         }},
        {"shuffle",
         [&](auto& a, auto&, auto&) {
             ip::shuffle(a, 3, order);
             ip::shuffle(a, 3, std::vector<int>{9, 9, 9});
         }},
        {"channelAppend",
         [](auto& a, auto& b, auto&) {
             ip::channelAppend(a, b, OIIO::ROI());
             ip::channelAppend(a, ip::Image{}, OIIO::ROI());
         }},
        {"invert",
         [&](auto& a, auto&, auto&) {
             ip::invert(a, OIIO::ROI());
             ip::invert(a, outside);
         }},
        {"invertChannel",
         [](auto& a, auto&, auto&) {
             ip::invertChannel(a, "G");
             ip::invertChannel(a, "nope");
         }},
        {"normalize",
         [](auto& a, auto&, auto&) {
             ip::normalize(a, 0.0f, 1.0f, {});
             ip::normalize(a, 0.0f, 1.0f, {"Z"});
         }},
    };

    for (const Call& call : calls) {
        SCOPED_TRACE(call.name);
        const ip::Image rgbaBefore = rgba;
        const ip::Image rgbBefore = rgb;
        call.run(rgba, rgb, temp.path());
        EXPECT_TRUE(sameImage(rgba.buffer, rgbaBefore.buffer));
        EXPECT_TRUE(sameImage(rgb.buffer, rgbBefore.buffer));
        EXPECT_EQ(rgba.properties, rgbaBefore.properties);
    }
}

}  // namespace
