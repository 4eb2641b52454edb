// Whole-image operations, normalize and the ID images: values on small images, and for every
// failure the empty Image (or false) with its one log line.

#include "test_support.h"

using namespace vorel::test;
using Floats = std::vector<float>;

namespace {

/// A width x height image of `channels` channels of T holding `values`, with one property.
template <typename V = float>
ip::Image imageOf(int width, int height, int channels, const std::vector<V>& values) {
    const T format(OIIO::BaseTypeFromC<V>::value);
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(width, height, channels, format));
    image.buffer.set_pixels(image.buffer.roi(), format, values.data());
    image.properties = {{"shot", "010"}};
    return image;
}

ip::Image flatten(ip::Image image) {
    ip::compositeOverBackgroundColor(image, {0, 0, 1, 1});
    return image;
}

class Operations : public LibraryTest {};

TEST_F(Operations, EachFailureGivesTheEmptyImageAndItsOwnErrLine) {
    const ip::Image none, rgb = imageOf(2, 1, 3, Floats(6, 0.5f)), rgba = makeGradient(1, 1, 4);
    const OIIO::ROI roi(0, 2, 0, 2);
    row("cut", describe(ip::cut(none, roi)));
    row("fit", describe(ip::fit(none, roi)));
    row("resize to nothing", describe(ip::resize(rgb, OIIO::ROI(0, 0, 0, 0))));
    row("rotate", describe(ip::rotate(none, 0.0f, false)));
    row("over without alpha", describe(ip::over(rgb, rgba)));
    row("flatten without alpha: emptied", describe(flatten(rgb)));
    row("solid colour of no region", describe(ip::createSolidColorImage({1}, {})));
    row("mode 3: OpenImageIO not called", describe(ip::preMultiply(none, ip::PreMultMode(3))));
    row("premult", describe(ip::preMultiply(none, {})));
    row("unknown colour space", describe(ip::colorConvert(rgb, "linear", "none")));
    row("shuffle", describe(ip::shuffle(none, 2, std::vector{2, 0})));
    row("channelAppend", describe(ip::channelAppend(none, none)));
    row("invert", describe(ip::invert(none)));
    row("invertChannel of a lower-case name", describe(ip::invertChannel(rgba, "r")));
    row("normalize of a missing channel", describe(ip::normalize(rgba, 0, 1, {"R", "G", "Z"})));
    row("normalize: R by default", describe(ip::normalize(imageOf(1, 1, 1, Floats{0}), 0, 1)));
    ip::Image empty;
    row("paste", ip::paste(empty, 0, 0, none));
    EXPECT_FALSE(empty.buffer.has_error());
}

TEST_F(Operations, GeometryCompositingAndAlpha) {
    const ip::Image source = makeGradient(8, 4, 3);
    const auto rgb = [](int x0, int x1, int y0, int y1) {
        return OIIO::ROI(x0, x1, y0, y1, 0, 1, 0, 3);
    };
    row("cut: origin to 0,0", describe(ip::cut(source, rgb(2, 6, 1, 3))));
    row("resize", describe(ip::resize(source, rgb(0, 16, 0, 2))));
    // 8 x 4 into 4 x 4: scaled to 4 x 2 and letterboxed by its display window.
    row("fit", describe(ip::fit(source, rgb(0, 4, 0, 4))));
    row("rotate a quarter, window recomputed", describe(ip::rotate(source, float(M_PI / 2), true)));
    row("rotate a quarter", describe(ip::rotate(source, float(M_PI / 2), false)));
    row("cut keeps the properties",
        describe(ip::cut(imageOf(2, 2, 1, Floats(4, 1)), rgb(1, 2, 0, 1))));
    ip::Image dst = imageOf(5, 4, 1, Floats(20, 0.0f));
    const ip::Image src = imageOf(2, 2, 1, Floats{1, 2, 3, 4});
    row("paste 2x2 at 3,1", ip::paste(dst, 3, 1, src));
    row("paste its left column at 0,0", ip::paste(dst, 0, 0, src, OIIO::ROI(0, 1, 0, 2)));
    row("pasted", describe(dst));

    const ip::Image fg = imageOf(2, 1, 4, Floats{0.4f, 0, 0, 0.5f, 0, 0, 0, 0});
    ip::Image bg = imageOf(2, 1, 4, Floats{0, 0.8f, 0, 1, 0, 0.8f, 0, 1});
    bg.properties = {{"bg", "only"}};
    row("over", describe(ip::over(fg, bg)));
    row("flatten on blue", describe(flatten(fg)));
    const ip::Image straight =
        imageOf(2, 1, 4, Floats{0.8f, 0.4f, 0.2f, 0.5f, 0.3f, 0.3f, 0.3f, 0});
    const ip::Image premult = ip::preMultiply(straight, ip::PreMultMode::Premult);
    row("premult", describe(premult));
    row("unpremult", describe(ip::preMultiply(premult, ip::PreMultMode::Unpremult)));
    row("repremult keeps colour at alpha 0",
        describe(ip::preMultiply(straight, ip::PreMultMode::Repremult)));
    ip::Image rgbImage = imageOf(1, 1, 3, Floats{0.1f, 0.2f, 0.3f});
    row("addAlphaChannel 0.25", ip::addAlphaChannel(rgbImage, 0.25f));
    row("added", describe(rgbImage));
    row("addAlphaChannel again: silent", ip::addAlphaChannel(rgbImage, 1.0f));
    for (ip::Image image : {makeGradient(1, 1, 1), makeGradient(1, 1, 2)})
        row("addAlphaChannel to " + describe(image), ip::addAlphaChannel(image, 1.0f));
}

TEST_F(Operations, ColourAndChannels) {
    // The sRGB curve at 0.001 (on its linear part), 0.18, 0.5 and 1: 0.01292, 0.46136, 0.73536, 1.
    row("linear to sRGB",
        describe(ip::colorConvert(imageOf(4, 1, 1, Floats{0.001f, 0.18f, 0.5f, 1.0f}), "linear",
                                  "sRGB")));
    const ip::Image rgba = imageOf(1, 1, 4, Floats{0.1f, 0.2f, 0.3f, 0.4f});
    row("shuffle 2, 0", describe(ip::shuffle(rgba, 2, std::vector{2, 0})));
    row("channelAppend", describe(ip::channelAppend(rgba, makeGradient(1, 1, 1))));
    row("invert", describe(ip::invert(rgba)));
    row("invert RGB", describe(ip::invert(rgba, OIIO::ROI(0, 1, 0, 1, 0, 1, 0, 3))));
    // Every channel of RGBA, on a data window at (0, 0) and on a shifted one.
    for (const int x : {0, 5}) {
        ip::Image source = makeGradient(3, 2, 4, T::FLOAT, 0.03f);
        source.buffer.set_origin(x, -x);
        for (const std::string channel : {"R", "G", "B", "A"})
            row("invertChannel " + channel, describe(ip::invertChannel(source, channel)));
    }
}

TEST_F(Operations, NormalizeOnTheFloatAndTheIntegerPath) {
    // R, G and B by default over their one range onto [5, 2], in single precision with the
    // multiplication first: (v - 0.2) * (2 - 5) / (0.9 - 0.2) + 5. Alpha stays.
    row("float", describe(ip::normalize(imageOf(1, 1, 4, Floats{0.55f, 0.9f, 0.2f, 0.3f}), 5, 2)));
    row("an empty range: NaN",
        describe(ip::normalize(imageOf(2, 1, 1, Floats{3, 3}), 0, 1, {"Y"})));
    // Integer types on OpenImageIO's 0..1 scale, stored back in their type.
    const ip::Image bytes = imageOf<std::uint8_t>(3, 1, 1, {51, 102, 204});
    row("uint8", describe(ip::normalize(bytes, 0, 1, {"Y"})));
    // Scalar UINT32: the raw integers as floats (2^24 + 1 rounds to 2^24, 2^32 - 1 to 2^32), the
    // result stored through OpenImageIO's float view, 0..1 onto the whole range, clamped; channel
    // 1 is carried through float.
    const std::vector<std::uint32_t> raw{16777217u, 7u, 33554432u, 0u, 4294967295u, 16777217u};
    row("uint32", describe(ip::normalize(imageOf(3, 1, 2, raw), 0, 1, {"R"})));
    // Pixels are addressed from (0, 0) whatever the data window: outside it they read as 0 and
    // are never written.
    ip::Image shifted = imageOf(3, 1, 2, std::vector<std::uint32_t>{10, 1, 20, 2, 30, 3});
    shifted.buffer.set_origin(2, 0);
    row("uint32 at x 2", describe(ip::normalize(shifted, 0, 1, {"R"})));
}

TEST_F(Operations, NormalizeEveryPixelTypeOnAShiftedWindowOnAllThreads) {
    // More rows than one thread's share; the chosen channels' joint range onto [5, -2]. The
    // digests were checked once against (v - min) * (-2 - 5) / (max - min) + 5 in float.
    for (const T type :
         {T::UINT8, T::INT8, T::UINT16, T::INT16, T::INT32, T::HALF, T::FLOAT, T::DOUBLE}) {
        ip::Image image = makeGradient(301, 67, 4, type, 1e-5f);
        image.buffer.set_origin(3, -2);
        row(type.c_str(), describe(ip::normalize(image, 5, -2, {"A", "R", "A"})));
    }
}

TEST_F(Operations, IdImagesShiftIntoUnsignedSamplesAndGrowIntoMasks) {
    std::vector<std::int32_t> ids{-1, 0, 2147483647, -5, 1, 41, -2147483648, 7};
    ip::Image image = ip::createImageFromData(ids.data(), 2, 2, 2, T::INT32);
    row("convertIdImageToUint", ip::convertIdImageToUint(image));
    row("converted", describe(image));
    row("never shifted twice", ip::convertIdImageToUint(image));
    // ID 0 at (1, 1) counts; the 2 x 2 window grows it into its right, lower and lower-right
    // neighbours, alpha too, in a mask of its own spec.
    std::vector<std::int32_t> single(5 * 4, -1);
    single[5 + 1] = 0;
    ip::Image mask = ip::createImageFromData(single.data(), 5, 4, 1, T::INT32);
    mask.buffer.set_origin(3, 2);
    mask.buffer.specmod().attribute("oiio:ColorSpace", "Raw");
    ip::idImageToMask(mask);
    row("idImageToMask", describe(mask));
    for (const OIIO::ImageSpec& spec :
         {OIIO::ImageSpec(2, 1, 1, T::FLOAT), OIIO::ImageSpec(2, 1, 1, T(T::INT32, 2)),
          OIIO::ImageSpec(2, 1, 2, T::INT32)}) {
        ip::Image refused;
        refused.buffer.reset(spec);
        row(describe(refused) + ": convert", ip::convertIdImageToUint(refused));
        ip::idImageToMask(refused);
        row("  then mask", describe(refused));
    }
    ip::idImageToMask(image);
    row("  mask of UINT32", describe(image));
    // A small buffer under a spec that claims far more, as specmod() allows: refused before a
    // sample is touched, with 2^64 samples and with (2^31 - 1)^2 pixels (an int product wraps).
    std::vector<std::int32_t> held{-1, 0, 5, 7};
    ip::Image claiming;
    claiming.buffer.reset(OIIO::ImageSpec(2, 2, 1, T::INT32), held.data());
    OIIO::ImageSpec& spec = claiming.buffer.specmod();
    spec.width = spec.height = 1 << 30;
    spec.nchannels = 16;
    row("claiming 2^64 samples: convert", ip::convertIdImageToUint(claiming));
    spec.width = spec.height = 2147483647;
    spec.nchannels = 1;
    ip::idImageToMask(claiming);
    row("claiming 2^62 pixels: mask", fmt::format("{}", fmt::join(held, " ")));
}

}  // namespace
