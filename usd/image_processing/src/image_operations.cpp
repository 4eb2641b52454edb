// The Image value, its colour-space tag and pixel access, and the whole-image operations: each
// operation is one ImageBufAlgo call run through the value frame or the in-place frame below.

#include <vorel/usd/image_processing/image_processing.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include <OpenImageIO/imagebufalgo.h>
#include <vorel/base/logging.h>

#include "pixel_types.h"

namespace vorel::usd::image_processing {

namespace IBA = OIIO::ImageBufAlgo;

// ---------------------------------------------------------------------------------------------
// Image: member by member, buffer first and properties second.
// ---------------------------------------------------------------------------------------------

Image::Image() = default;

Image::Image(const Image& other) = default;

Image::Image(Image&& other) noexcept
    : buffer(std::move(other.buffer)), properties(std::exchange(other.properties, {})) {}

Image::~Image() = default;

Image& Image::operator=(const Image& other) {
    if (this != &other) {
        // Copy-construct, then move: OpenImageIO 2.4's copy assignment dereferences the
        // implementation that a move has taken away, so copying into a moved-from Image would
        // crash, whereas a move into it is safe. The result is the same deep copy.
        buffer = OIIO::ImageBuf(other.buffer);
        properties = other.properties;
    }
    return *this;
}

Image& Image::operator=(Image&& other) noexcept {
    if (this != &other) {
        buffer = std::move(other.buffer);
        properties.clear();
        properties.swap(other.properties);
    }
    return *this;
}

namespace {

// ---------------------------------------------------------------------------------------------
// The two frames every operation runs in. An operation is its ImageBufAlgo call and its message;
// the message has one placeholder, which receives OpenImageIO's error text.
// ---------------------------------------------------------------------------------------------

using FailureMessage = spdlog::format_string_t<std::string>;

/// Value frame: `result` is what the value overload of ImageBufAlgo returned. Its has_error()
/// alone decides. On success its pixels move into the new Image, which carries a copy of the
/// first source's properties (none when the operation has no source image).
Image valueResult(OIIO::ImageBuf&& result, const Image* source, FailureMessage failureMessage) {
    if (result.has_error()) {
        VOREL_LOG(err, failureMessage, result.geterror(true));
        return Image{};
    }
    Image image;
    image.buffer = std::move(result);
    if (source != nullptr) {
        image.properties = source->properties;
    }
    return image;
}

/// In-place frame: `failed` is the operation's own test after its call on `buffer`; the error
/// text is taken from (and thereby cleared on) that same buffer.
[[maybe_unused]] bool inPlaceResult(bool failed, OIIO::ImageBuf& buffer,
                                    FailureMessage failureMessage) {
    if (failed) {
        VOREL_LOG(err, failureMessage, buffer.geterror(true));
        return false;
    }
    return true;
}

bool isScalarUInt32(const OIIO::TypeDesc& type) {
    return isScalarOf(type, OIIO::TypeDesc::UINT32);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Colour-space tag
// ---------------------------------------------------------------------------------------------

std::string getColorSpace(const Image& image) {
    return std::string(image.buffer.spec().get_string_attribute("oiio:ColorSpace", ""));
}

void setColorSpace(Image& image, const std::string& colorSpace) {
    if (colorSpace.empty() || colorSpace == "unknown") {
        VOREL_LOG(warn,
                  "Setting empty or unknown color space, this is likely to lead to compositing "
                  "errors");
    }
    image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
}

// ---------------------------------------------------------------------------------------------
// Pixel access
// ---------------------------------------------------------------------------------------------

int getNumChannels(const Image& image) {
    return image.buffer.spec().nchannels;
}

float getPixelValue(const Image& image, int x, int y, int z, int channel) {
    return image.buffer.getchannel(x, y, z, channel, OIIO::ImageBuf::WrapBlack);
}

unsigned int getPixelUIntValue(const Image& image, int x, int y, int z, int channel) {
    const OIIO::TypeDesc format = image.buffer.spec().format;
    if (!isScalarUInt32(format)) {
        VOREL_LOG(err, "getPixelUIntValue requires UINT image, but image is {}", format.c_str());
        return 0;
    }
    unsigned int value = 0;
    const OIIO::ROI one(x, x + 1, y, y + 1, z, z + 1, channel, channel + 1);
    // OpenImageIO 2.4 crashes the process on a channel beyond the image's channels instead of
    // failing, so such a channel takes the failure path without the call.
    const bool channelExists = channel >= 0 && channel < image.buffer.spec().nchannels;
    if (!channelExists ||
        !image.buffer.get_pixels(one, OIIO::TypeDesc(OIIO::TypeDesc::UINT32), &value)) {
        VOREL_LOG(err, "get_pixels failed");
        return 0;
    }
    return value;
}

// ---------------------------------------------------------------------------------------------
// Geometric operations
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Compositing and alpha
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Colour conversion
// ---------------------------------------------------------------------------------------------

Image colorConvert(const Image& image, const std::string& fromSpace, const std::string& toSpace) {
    return valueResult(IBA::colorconvert(image.buffer, fromSpace, toSpace, /*unpremult=*/true,
                                         /*context_key=*/"", /*context_value=*/"",
                                         /*colorconfig=*/nullptr, OIIO::ROI(), /*nthreads=*/0),
                       &image, "colorConvert operation failed:\n{}");
}

// ---------------------------------------------------------------------------------------------
// Channel operations
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Normalisation
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// ID images
// ---------------------------------------------------------------------------------------------

void idImageToMask(Image& image) {
    VOREL_LOG(debug, "idImageToMask");
    OIIO::ImageSpec& spec = image.buffer.specmod();
    if (spec.nchannels != 1 || !isScalarOf(spec.format, OIIO::TypeDesc::INT32)) {
        VOREL_LOG(err, "Unexpected format for idImage");
        return;
    }
    const std::int32_t* const ids = static_cast<const std::int32_t*>(image.buffer.localpixels());
    if (ids == nullptr) {
        VOREL_LOG(err, "Can't modify image with non-local pixels");
        return;
    }
    constexpr int kMaskChannels = 4;
    const OIIO::ImageSpec maskSpec(spec.width, spec.height, kMaskChannels,
                                   OIIO::TypeDesc(OIIO::TypeDesc::UINT8, OIIO::TypeDesc::SCALAR,
                                                  OIIO::TypeDesc::NOSEMANTICS, 0));
    OIIO::ImageBuf mask(maskSpec, OIIO::InitializePixels::No);
    std::uint8_t* const rgba = static_cast<std::uint8_t*>(mask.localpixels());
    const int pixelCount = spec.width * spec.height;
    for (int i = 0; i < pixelCount; ++i) {
        const std::uint8_t value = ids[i] < 0 ? 0 : 255;
        std::fill_n(rgba + i * kMaskChannels, kMaskChannels, value);
    }
    // A 2 x 2 window (height -1 repeats the width), not dilate's default of 3: every identified
    // pixel also sets its right, lower and lower-right neighbours, a margin of one pixel.
    const OIIO::ImageBuf dilated =
        IBA::dilate(mask, /*width=*/2, /*height=*/-1, OIIO::ROI(), /*nthreads=*/0);
    // Spec and pixels of the mask replace ours; copying from a local buffer in its own type
    // leaves copy nothing to fail on that we could act on, so its result isn't looked at.
    image.buffer.copy(dilated, OIIO::TypeUnknown);
}

}  // namespace vorel::usd::image_processing
