// The Image value, its colour-space tag and pixel access, and the whole-image operations: each
// operation is one ImageBufAlgo call run through the value frame or the in-place frame below.

#include <vorel/usd/image_processing/image_processing.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include <OpenImageIO/half.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imagebufalgo_util.h>
#include <fmt/format.h>
#include <vorel/base/logging.h>

#include "parallel_image.h"
#include "pixel_memory.h"
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

/// A new Image taking `pixels` by move, with a copy of `source`'s properties (none without one).
Image resultImage(OIIO::ImageBuf&& pixels, const Image* source) {
    Image image;
    image.buffer = std::move(pixels);
    if (source != nullptr) {
        image.properties = source->properties;
    }
    return image;
}

/// Value frame: `result` is what the value overload of ImageBufAlgo returned. Its has_error()
/// alone decides. On success its pixels move into the new Image, which carries a copy of the
/// first source's properties (none when the operation has no source image).
Image valueResult(OIIO::ImageBuf&& result, const Image* source, FailureMessage failureMessage) {
    if (result.has_error()) {
        VOREL_LOG(err, failureMessage, result.geterror(true));
        return Image{};
    }
    return resultImage(std::move(result), source);
}

/// In-place frame: `failed` is the operation's own test after its call on `buffer`; the error
/// text is taken from (and thereby cleared on) that same buffer.
bool inPlaceResult(bool failed, OIIO::ImageBuf& buffer, FailureMessage failureMessage) {
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

Image cut(const Image& image, const OIIO::ROI& roi) {
    return valueResult(IBA::cut(image.buffer, roi, /*nthreads=*/0), &image,
                       "Crop operation failed:\n{}");
}

Image fit(const Image& image, const OIIO::ROI& roi) {
    // OpenImageIO deprecates (since 2.3) this overload without a fill mode; it letterboxes, which
    // is what fit promises, so it is called on purpose and the deprecation is silenced here only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return valueResult(IBA::fit(image.buffer, /*filtername=*/"", /*filterwidth=*/0.0f,
                                /*exact=*/false, roi, /*nthreads=*/0),
                       &image, "Fit operation failed:\n{}");
#pragma GCC diagnostic pop
}

Image resize(const Image& image, const OIIO::ROI& roi) {
    return valueResult(
        IBA::resize(image.buffer, /*filtername=*/"", /*filterwidth=*/0.0f, roi, /*nthreads=*/0),
        &image, "Resize operation failed:\n{}");
}

Image rotate(const Image& image, float angle, bool recomputeRoi) {
    return valueResult(IBA::rotate(image.buffer, angle, /*filtername=*/"", /*filterwidth=*/0.0f,
                                   recomputeRoi, OIIO::ROI(), /*nthreads=*/0),
                       &image, "Rotate operation failed:\n{}");
}

bool paste(Image& dst, int x, int y, const Image& src, const OIIO::ROI& roi) {
    const bool pasted = IBA::paste(dst.buffer, x, y, /*zbegin=*/0, /*chbegin=*/0, src.buffer, roi,
                                   /*nthreads=*/0);
    return inPlaceResult(!pasted, dst.buffer, "Paste operation failed:\n{}");
}

// ---------------------------------------------------------------------------------------------
// Compositing and alpha
// ---------------------------------------------------------------------------------------------

Image over(const Image& foreground, const Image& background, const OIIO::ROI& roi) {
    return valueResult(IBA::over(foreground.buffer, background.buffer, roi, /*nthreads=*/0),
                       &foreground, "Over compositing failed:\n{}");
}

Image createSolidColorImage(const std::vector<float>& color, const OIIO::ROI& roi) {
    return valueResult(IBA::fill(color, roi, /*nthreads=*/0), /*source=*/nullptr,
                       "Create solid operation failed:\n{}");
}

void compositeOverBackgroundColor(Image& image, const std::vector<float>& backgroundColor) {
    const OIIO::ImageSpec& spec = image.buffer.spec();
    // Always RGBA from pixel (0, 0), whatever the image's channels or data window.
    const OIIO::ROI region(0, spec.width, 0, spec.height, 0, 1, 0, 4);
    const Image background = createSolidColorImage(backgroundColor, region);
    image = over(image, background, region);
}

namespace {

using AlphaOperation = OIIO::ImageBuf (*)(const OIIO::ImageBuf&, OIIO::ROI, int);

/// The ImageBufAlgo call that `mode` selects, or nullptr for a value outside the enumeration.
AlphaOperation alphaOperation(PreMultMode mode) {
    switch (mode) {
        case PreMultMode::Premult:
            return IBA::premult;
        case PreMultMode::Unpremult:
            return IBA::unpremult;
        case PreMultMode::Repremult:
            return IBA::repremult;
    }
    return nullptr;
}

}  // namespace

Image preMultiply(const Image& image, PreMultMode mode) {
    const AlphaOperation operation = alphaOperation(mode);
    if (operation == nullptr) {
        VOREL_LOG(err, "Invalid PreMultMode");
        return Image{};
    }
    return valueResult(operation(image.buffer, OIIO::ROI(), /*nthreads=*/0), &image,
                       "Premultiply operation failed:\n{}");
}

bool addAlphaChannel(Image& image, float alpha) {
    const int alphaChannel = image.buffer.spec().alpha_channel;
    const int channelCount = image.buffer.spec().nchannels;
    if (alphaChannel != -1) {
        return false;
    }
    if (channelCount != 3) {
        VOREL_LOG(warn, "Couldn't add alpha channel to image with {} channels", channelCount);
        return false;
    }
    // R, G and B stay (names included); the fourth channel, "A", takes its value from `alpha`.
    const int channelOrder[] = {0, 1, 2, -1};
    const float channelValues[] = {0.0f, 0.0f, 0.0f, alpha};
    const std::string channelNames[] = {"", "", "", "A"};
    IBA::channels(image.buffer, image.buffer, 4, channelOrder, channelValues, channelNames,
                  /*shuffle_channel_names=*/false, /*nthreads=*/0);
    return inPlaceResult(image.buffer.has_error(), image.buffer,
                         "Adding of alpha channel failed:\n{}");
}

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

Image shuffle(const Image& image, int channelCount, OIIO::span<const int> channelOrder) {
    return valueResult(IBA::channels(image.buffer, channelCount, channelOrder,
                                     /*channelvalues=*/{}, /*newchannelnames=*/{},
                                     /*shuffle_channel_names=*/false, /*nthreads=*/0),
                       &image, "Shuffle operation failed:\n{}");
}

Image channelAppend(const Image& first, const Image& second, const OIIO::ROI& roi) {
    return valueResult(IBA::channel_append(first.buffer, second.buffer, roi, /*nthreads=*/0),
                       &first, "Channel append operation failed:\n{}");
}

Image invert(const Image& image, const OIIO::ROI& roi) {
    return valueResult(OIIO::ImageBufAlgo::invert(image.buffer, roi, /*nthreads=*/0), &image,
                       "Invert operation failed:\n{}");
}

Image invertChannel(const Image& image, std::string channelName) {
    OIIO::ImageBuf buf(image.buffer);
    OIIO::ROI roi = buf.roi();
    const std::vector<std::string>& names = buf.spec().channelnames;
    const auto found = std::find(names.begin(), names.end(), channelName);
    if (found == names.end()) {
        VOREL_LOG(err, "Given channel '{}' doesn't exist", channelName);
        return Image{};
    }
    roi.chbegin = static_cast<int>(found - names.begin());
    roi.chend = roi.chbegin + 1;

    OIIO::ImageBuf inverted = OIIO::ImageBufAlgo::invert(buf, roi, /*nthreads=*/0);
    if (!inPlaceResult(inverted.has_error(), inverted, "Invert operation failed:\n{}")) {
        return Image{};
    }
    // paste (OpenImageIO 2.4.7) adds srcroi's start to these, so 0s put `roi` back on itself.
    const bool pasted = IBA::paste(buf, 0, 0, 0, 0, inverted, roi, /*nthreads=*/0);
    if (!inPlaceResult(!pasted, buf, "Past operation failed:\n{}")) {
        return Image{};
    }
    return resultImage(std::move(buf), &image);
}

// ---------------------------------------------------------------------------------------------
// Normalisation
// ---------------------------------------------------------------------------------------------

namespace {

/// The linear map of the chosen channels from [min, max] onto [targetMin, targetMax].
struct Remap {
    std::vector<char> selected;  // per channel of the image: remapped (1) or carried (0)
    float min = std::numeric_limits<float>::infinity();  // an empty range until widened
    float max = -std::numeric_limits<float>::infinity();
    float targetMin = 0.0f;
    float targetMax = 0.0f;

    void widen(float low, float high) {
        min = std::min(min, low);
        max = std::max(max, high);
    }

    /// Single precision, multiplication before division, so results match to the bit.
    float operator()(float v) const {
        const float a = v - min;
        const float b = targetMax - targetMin;
        const float c = a * b;
        const float d = max - min;
        const float e = c / d;
        return e + targetMin;
    }
};

/// The part of `result` that the remap writes (always at z 0: images are flat), and the slice
/// of the source it reads from there. `full` says whether that is all of `result`, so that
/// nothing else needs clearing.
struct Walk {
    OIIO::ROI region;
    int sourceZ = 0;
    bool full = false;
};

/// A region of `spec` at z 0, clipped to its data window, and whether it covers the window.
Walk flatWalk(const OIIO::ImageSpec& spec, int xbegin, int xend, int ybegin, int yend,
              int sourceZ) {
    Walk walk;
    const bool hasSliceZero = spec.z <= 0 && 0 < spec.z + spec.depth;
    const OIIO::ROI region(std::max(xbegin, spec.x), std::min(xend, spec.x + spec.width),
                           std::max(ybegin, spec.y), std::min(yend, spec.y + spec.height), 0, 1, 0,
                           spec.nchannels);
    if (!hasSliceZero || region.xbegin >= region.xend || region.ybegin >= region.yend) {
        return walk;  // an undefined region: nothing is written
    }
    walk.region = region;
    walk.sourceZ = sourceZ;
    walk.full = spec.depth == 1 && walk.region == OIIO::get_roi(spec);
    return walk;
}

/// Remaps `walk.region` of `result` from `source`, on OpenImageIO's threads. Samples are read as
/// `Read` and then taken as float: the stored integer itself for UINT32, OpenImageIO's float
/// view otherwise. Writing through the iterator converts as setpixel does.
template <typename Stored, typename Read>
bool remapRegion(OIIO::ImageBuf& result, const OIIO::ImageBuf& source, const Remap& remap,
                 const Walk& walk) {
    const int nchannels = source.nchannels();
    parallelImage(walk.region, [&](OIIO::ROI roi) {
        OIIO::ROI from = roi;
        from.zbegin = walk.sourceZ;
        from.zend = walk.sourceZ + 1;
        OIIO::ImageBuf::ConstIterator<Stored, Read> in(source, from);
        for (OIIO::ImageBuf::Iterator<Stored, float> out(result, roi); !out.done(); ++in, ++out) {
            for (int c = 0; c < nchannels; ++c) {
                const float v = static_cast<float>(in[c]);
                out[c] = remap.selected[c] ? remap(v) : v;
            }
        }
    });
    return true;
}

template <typename Stored>
bool remapAsFloats(OIIO::ImageBuf& result, const OIIO::ImageBuf& source, const Remap& remap,
                   const Walk& walk) {
    return remapRegion<Stored, float>(result, source, remap, walk);
}

/// Scalar UINT32 images: the raw integers, rounded to float. Pixels are addressed from (0, 0)
/// whatever the data window, and a position outside it reads as 0.
void normalizeIntegers(const OIIO::ImageBuf& source, OIIO::ImageBuf& result, Remap& remap) {
    const OIIO::ImageSpec& spec = source.spec();
    const Walk walk = flatWalk(spec, 0, spec.width, 0, spec.height, /*sourceZ=*/0);
    const OIIO::imagesize_t addressed = OIIO::imagesize_t(spec.width) * spec.height;
    const OIIO::imagesize_t inside = walk.region.defined() ? walk.region.npixels() : 0;
    if (inside < addressed) {
        remap.widen(0.0f, 0.0f);
    }
    if (inside > 0) {
        // One range per row, found in parallel and folded here: rounding to float keeps the
        // order, so the float of the smallest integer is the smallest float.
        const OIIO::ROI& region = walk.region;
        std::vector<std::uint32_t> rowMin(region.height());
        std::vector<std::uint32_t> rowMax(region.height());
        parallelImage(region, [&](OIIO::ROI rows) {
            for (int y = rows.ybegin; y < rows.yend; ++y) {
                std::uint32_t low = std::numeric_limits<std::uint32_t>::max();
                std::uint32_t high = 0;
                const OIIO::ROI line(rows.xbegin, rows.xend, y, y + 1, 0, 1, 0, spec.nchannels);
                for (OIIO::ImageBuf::ConstIterator<std::uint32_t, std::uint32_t> it(source, line);
                     !it.done(); ++it) {
                    for (int c = 0; c < spec.nchannels; ++c) {
                        if (remap.selected[c]) {
                            low = std::min<std::uint32_t>(low, it[c]);
                            high = std::max<std::uint32_t>(high, it[c]);
                        }
                    }
                }
                rowMin[y - region.ybegin] = low;
                rowMax[y - region.ybegin] = high;
            }
        });
        remap.widen(static_cast<float>(*std::min_element(rowMin.begin(), rowMin.end())),
                    static_cast<float>(*std::max_element(rowMax.begin(), rowMax.end())));
    }
    VOREL_LOG(debug, "Normalizing int buffer with min : {} max : {}", remap.min, remap.max);
    if (!walk.full) {
        IBA::zero(result, OIIO::ROI(), /*nthreads=*/0);
    }
    if (walk.region.defined()) {
        remapRegion<std::uint32_t, std::uint32_t>(result, source, remap, walk);
    }
}

/// Every other pixel type: the range from computePixelStats, then one pass over the pixels in
/// OpenImageIO's float view (integer types as 0..1, the scale the statistics report them on).
void normalizeFloats(const OIIO::ImageBuf& source, OIIO::ImageBuf& result,
                     const std::vector<int>& selection, Remap& remap) {
    const OIIO::ImageBufAlgo::PixelStats stats =
        IBA::computePixelStats(source, OIIO::ROI(), /*nthreads=*/0);
    for (const int channel : selection) {
        remap.widen(stats.min[channel], stats.max[channel]);
    }
    VOREL_LOG(debug, "Normalizing float buffer with min : {} max : {}", remap.min, remap.max);

    // Every pixel lands at z 0, so of a volume the last slice is what stays there.
    const OIIO::ImageSpec& spec = source.spec();
    const Walk walk = flatWalk(spec, spec.x, spec.x + spec.width, spec.y, spec.y + spec.height,
                               /*sourceZ=*/spec.z + spec.depth - 1);
    if (!walk.full) {
        IBA::zero(result, OIIO::ROI(), /*nthreads=*/0);
    }
    if (!walk.region.defined()) {
        return;
    }
    using OIIO::TypeDesc;  // OpenImageIO's dispatch macro names the pixel types unqualified
    bool remapped = false;
    OIIO_DISPATCH_TYPES(remapped, "normalize", remapAsFloats, spec.format, result, source, remap,
                        walk);
    // Nothing is reported after the walk; a pixel type without a case leaves its text on result,
    // whose pixels are then all 0.
    if (!remapped) {
        IBA::zero(result, OIIO::ROI(), /*nthreads=*/0);
    }
}

}  // namespace

Image normalize(const Image& image, float targetMin, float targetMax,
                const std::vector<std::string>& channelNames) {
    const OIIO::ImageSpec spec = image.buffer.spec();
    static const std::vector<std::string> defaultChannelNames{"R", "G", "B"};

    std::vector<int> selection;
    for (const std::string& name : channelNames.empty() ? defaultChannelNames : channelNames) {
        const int index = spec.channelindex(name);
        if (index < 0 || index >= spec.nchannels) {
            VOREL_LOG(err,
                      "Normalize fails: Channel index out of range:\n{}, present channels : [{}]",
                      name, fmt::join(spec.channelnames, ", "));
            return Image{};
        }
        selection.push_back(index);
    }
    Remap remap;
    remap.targetMin = targetMin;
    remap.targetMax = targetMax;
    remap.selected.assign(spec.nchannels, 0);
    for (const int channel : selection) {
        remap.selected[channel] = 1;
    }

    // Not cleared here: the pass writes every pixel, or the path clears what it leaves out.
    OIIO::ImageBuf result(spec, OIIO::InitializePixels::No);
    if (isScalarUInt32(image.buffer.pixeltype())) {
        normalizeIntegers(image.buffer, result, remap);
    } else {
        normalizeFloats(image.buffer, result, selection, remap);
    }
    return resultImage(std::move(result), &image);
}

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
    // Counted in size_t: a spec can claim more pixels than an int counts. The mask is allocated
    // under the same checks as any untrusted size; ID pixels whose mask can't be had are refused
    // like pixels that aren't local, since neither can be worked on in memory.
    const std::optional<size_t> pixelCount = checkedProduct({spec.width, spec.height});
    constexpr int kMaskChannels = 4;
    const OIIO::ImageSpec maskSpec(spec.width, spec.height, kMaskChannels,
                                   OIIO::TypeDesc(OIIO::TypeDesc::UINT8, OIIO::TypeDesc::SCALAR,
                                                  OIIO::TypeDesc::NOSEMANTICS, 0));
    OIIO::ImageBuf mask;
    if (ids != nullptr && pixelCount) {
        mask = allocatePixels(maskSpec, OIIO::InitializePixels::No);
    }
    std::uint8_t* const rgba = static_cast<std::uint8_t*>(mask.localpixels());
    if (rgba == nullptr) {
        mask.geterror(true);  // the mask's own reason goes with it, not into a later message
        VOREL_LOG(err, "Can't modify image with non-local pixels");
        return;
    }
    for (size_t i = 0; i < *pixelCount; ++i) {
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
