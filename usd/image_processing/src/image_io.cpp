// Images in and out of files and memory.

#include <vorel/usd/image_processing/image_processing.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include <pxr/imaging/hio/image.h>
#include <pxr/imaging/hio/types.h>
#include <vorel/base/logging.h>
#include <vorel/base/path_utils.h>
#include <vorel/base/str_utils.h>
#include <vorel/base/timing.h>

#include "file_attributes.h"
#include "image_reading.h"
#include "parallel_image.h"
#include "pixel_memory.h"
#include "pixel_types.h"

namespace vorel::usd::image_processing {

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

Image readImage(const std::filesystem::path& path) {
    const std::string fileName = base::convertPathToString(path);
    std::string failure;
    Image image = readOpenedImage(OIIO::ImageInput::open(fileName, nullptr, nullptr), failure);
    if (!image.buffer.initialized()) {
        VOREL_LOG(warn, "Couldn't read image {}:\n{}", fileName, failure);
    }
    return image;
}

ImageSpec getImageSpec(const std::filesystem::path& path) {
    const std::string fileName = base::convertPathToString(path);
    const std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(fileName, nullptr, nullptr);
    if (!in) {
        VOREL_LOG(err, "Couldn't open image {}:\n{}", fileName, OIIO::geterror(true));
        return ImageSpec{0, 0};
    }
    const ImageSpec size{in->spec().width, in->spec().height};
    in->close();
    return size;
}

namespace {

/// The smallest MIP level of subimage 0: the last one that the reader seeks to. The refusal of
/// the level past it is no failure, and its text is dropped.
int smallestMipLevel(OIIO::ImageInput& in) {
    int level = 0;
    while (in.seek_subimage(/*subimage=*/0, level + 1)) {
        ++level;
    }
    in.geterror(/*clear=*/true);
    OIIO::geterror(/*clear=*/true);
    return level;
}

/// The first row (or slice) of the last tile of `extent` samples from `origin`; `origin` itself
/// for scanlines (a tile size of 0).
int lastTileStart(int origin, int extent, int tile) {
    return tile > 0 && extent > 0 ? origin + (extent - 1) / tile * tile : origin;
}

/// Reads the pixels at the end of the current level as floats: the last row of tiles, or the
/// last rows of the last slice. "" when they read, else what failed. Memory for them is held to
/// the host's limits like any other.
std::string readLastRows(OIIO::ImageInput& in, int level) {
    constexpr int kScanlineRows = 16;
    const OIIO::ImageSpec spec = in.spec();
    const bool tiled = spec.tile_width > 0;
    const int yend = spec.y + spec.height, zend = spec.z + spec.depth;
    const int ybegin = tiled ? lastTileStart(spec.y, spec.height, spec.tile_height)
                             : std::max(spec.y, yend - kScanlineRows);
    const int zbegin = tiled ? lastTileStart(spec.z, spec.depth, spec.tile_depth) : zend - 1;
    const std::string refusal = pixelMemoryRefusal(spec.width, yend - ybegin, zend - zbegin,
                                                   spec.nchannels, OIIO::TypeFloat);
    if (!refusal.empty()) {
        return refusal;
    }
    std::vector<float> pixels(size_t(spec.width) * size_t(yend - ybegin) * size_t(zend - zbegin) *
                              size_t(spec.nchannels));
    const bool read =
        tiled ? in.read_tiles(/*subimage=*/0, level, spec.x, spec.x + spec.width, ybegin, yend,
                              zbegin, zend, /*chbegin=*/0, spec.nchannels, OIIO::TypeFloat,
                              pixels.data())
              : in.read_scanlines(/*subimage=*/0, level, ybegin, yend, zbegin, /*chbegin=*/0,
                                  spec.nchannels, OIIO::TypeFloat, pixels.data());
    return read ? std::string() : fmt::format("the pixels of MIP level {} don't read", level);
}

/// Seeks to the smallest MIP level of subimage 0 and reads its last rows: "" when they read, else
/// what failed. A TIFF's MIP levels are a chain of directories, and a file cut between two of
/// them reads whole as a shorter chain: only a chain that ends at one pixel, as every texture's
/// does, is complete.
std::string readSmallestLevel(OIIO::ImageInput& in) {
    const int level = smallestMipLevel(in);
    if (!in.seek_subimage(/*subimage=*/0, level)) {
        return fmt::format("MIP level {} doesn't open", level);
    }
    const OIIO::ImageSpec& spec = in.spec();
    if (level > 0 && (spec.width > 1 || spec.height > 1) &&
        std::string_view(in.format_name()) == "tiff") {
        return fmt::format("the file ends after MIP level {} of {}x{} pixels", level, spec.width,
                           spec.height);
    }
    return readLastRows(in, level);
}

/// The error of a failed step: the reader's text, else OpenImageIO's global one, else `step`.
/// Both are taken, so that neither comes up again in a later failure.
std::string readBackFailure(const std::string& fileName, OIIO::ImageInput* in,
                            const std::string& step) {
    const std::string global = OIIO::geterror(/*clear=*/true);
    const std::string own = in ? in->geterror(/*clear=*/true) : std::string();
    const std::string& detail = !own.empty() ? own : !global.empty() ? global : step;
    return fmt::format("Couldn't read back {}:\n{}", fileName, detail);
}

}  // namespace

ReadBack readBackImageFile(const std::filesystem::path& path) {
    const std::string fileName = base::convertPathToString(path);
    ReadBack result;
    const std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(fileName, nullptr, nullptr);
    if (!in) {
        result.error = readBackFailure(fileName, nullptr, "the file doesn't open");
        return result;
    }
    const OIIO::ImageSpec& header = in->spec();
    result.channels = header.nchannels;
    result.format = header.format.c_str();
    result.colorSpace = header.get_string_attribute("oiio:ColorSpace");
    const std::string failedStep = readSmallestLevel(*in);
    if (!failedStep.empty()) {
        result.error = readBackFailure(fileName, in.get(), failedStep);
    }
    in->close();
    return result;
}

Image createImageFromData(void* data, int width, int height, int numChannels,
                          OIIO::TypeDesc format) {
    // The caller's size is checked before a spec is made of it: a spec names each of its channels.
    const std::string refusal = pixelMemoryRefusal(width, height, /*depth=*/1, numChannels, format);
    OIIO::ImageBuf buffer =
        refusal.empty() ? OIIO::ImageBuf(OIIO::ImageSpec(width, height, numChannels, format),
                                         OIIO::InitializePixels::Yes)
                        : withoutPixels(refusal);
    // The result of set_pixels is not what decides: the buffer's error state is. set_pixels
    // fails cleanly on a buffer without memory and adds its own text to the reason already
    // there. OpenImageIO 2.4 crashes on a null source instead of failing, so that case is
    // refused on the buffer itself and goes the same way as any other failure.
    if (data != nullptr) {
        buffer.set_pixels(buffer.roi(), format, data, OIIO::AutoStride, OIIO::AutoStride,
                          OIIO::AutoStride);
    } else if (buffer.localpixels() != nullptr) {
        buffer.error("no pixel data: the data pointer is null");
    }
    if (buffer.has_error()) {
        VOREL_LOG(err, "Couldn't create image:\n{}", buffer.geterror(true));
        return Image{};
    }
    Image image;
    image.buffer = std::move(buffer);
    return image;
}

// ---------------------------------------------------------------------------------------------
// Asset images through Hio
// ---------------------------------------------------------------------------------------------

Image getImageFromAssetPath(const std::string& assetPath) {
    const PXR_NS::HioImageSharedPtr hioImage = PXR_NS::HioImage::OpenForReading(
        assetPath, /*subimage=*/0, /*mip=*/0, PXR_NS::HioImage::Auto, /*suppressErrors=*/false);
    if (!hioImage) {
        VOREL_LOG(err, "Failed to open image {}", assetPath);
        return Image{};
    }
    // One UINT8 channel per byte of a pixel, whatever the format: a wider format's pixels come
    // through as their raw bytes. Hio reads straight into the result's memory, cleared first as
    // any new image is; the size is the file's claim, so it goes through the same checks as any
    // other untrusted size before anything is allocated.
    const size_t bytesPerPixel =
        PXR_NS::HioGetDataSizeOfFormat(hioImage->GetFormat(), nullptr, nullptr);
    const OIIO::ImageSpec spec(hioImage->GetWidth(), hioImage->GetHeight(),
                               static_cast<int>(bytesPerPixel), OIIO::TypeUInt8);
    OIIO::ImageBuf buffer = allocatePixels(spec, OIIO::InitializePixels::Yes);
    if (buffer.localpixels() == nullptr) {
        VOREL_LOG(err, "Couldn't create image:\n{}", buffer.geterror(true));
        return Image{};
    }
    // Hio delivers the format the file has, so nothing is converted, in its own row order.
    PXR_NS::HioImage::StorageSpec storage;
    storage.width = spec.width;
    storage.height = spec.height;
    storage.depth = 0;
    storage.format = hioImage->GetFormat();
    storage.flipped = false;
    storage.data = buffer.localpixels();
    if (!hioImage->Read(storage)) {
        VOREL_LOG(err, "Reading of image {} failed", assetPath);
        return Image{};
    }
    Image image;
    image.buffer = std::move(buffer);
    if (hioImage->IsColorSpaceSRGB()) {
        setColorSpace(image, "sRGB");
    }
    return image;
}

// ---------------------------------------------------------------------------------------------
// Hgi format vocabulary
// ---------------------------------------------------------------------------------------------

namespace {

// The pixel layout of one HgiFormat in OpenImageIO's terms.
struct HgiLayout {
    PXR_NS::HgiFormat format;
    int channels;
    OIIO::TypeDesc::BASETYPE channelType;
};

// Every HgiFormat up to HgiFormatUNorm8Vec4srgb, indexed by its value. Normalised formats map to
// plain integer types; the sRGB encoding of the last one doesn't show.
constexpr std::array<HgiLayout, 27> kHgiLayouts = {{
    {PXR_NS::HgiFormatUNorm8, 1, OIIO::TypeDesc::UINT8},
    {PXR_NS::HgiFormatUNorm8Vec2, 2, OIIO::TypeDesc::UINT8},
    {PXR_NS::HgiFormatUNorm8Vec4, 4, OIIO::TypeDesc::UINT8},
    {PXR_NS::HgiFormatSNorm8, 1, OIIO::TypeDesc::INT8},
    {PXR_NS::HgiFormatSNorm8Vec2, 2, OIIO::TypeDesc::INT8},
    {PXR_NS::HgiFormatSNorm8Vec4, 4, OIIO::TypeDesc::INT8},
    {PXR_NS::HgiFormatFloat16, 1, OIIO::TypeDesc::HALF},
    {PXR_NS::HgiFormatFloat16Vec2, 2, OIIO::TypeDesc::HALF},
    {PXR_NS::HgiFormatFloat16Vec3, 3, OIIO::TypeDesc::HALF},
    {PXR_NS::HgiFormatFloat16Vec4, 4, OIIO::TypeDesc::HALF},
    {PXR_NS::HgiFormatFloat32, 1, OIIO::TypeDesc::FLOAT},
    {PXR_NS::HgiFormatFloat32Vec2, 2, OIIO::TypeDesc::FLOAT},
    {PXR_NS::HgiFormatFloat32Vec3, 3, OIIO::TypeDesc::FLOAT},
    {PXR_NS::HgiFormatFloat32Vec4, 4, OIIO::TypeDesc::FLOAT},
    {PXR_NS::HgiFormatInt16, 1, OIIO::TypeDesc::INT16},
    {PXR_NS::HgiFormatInt16Vec2, 2, OIIO::TypeDesc::INT16},
    {PXR_NS::HgiFormatInt16Vec3, 3, OIIO::TypeDesc::INT16},
    {PXR_NS::HgiFormatInt16Vec4, 4, OIIO::TypeDesc::INT16},
    {PXR_NS::HgiFormatUInt16, 1, OIIO::TypeDesc::UINT16},
    {PXR_NS::HgiFormatUInt16Vec2, 2, OIIO::TypeDesc::UINT16},
    {PXR_NS::HgiFormatUInt16Vec3, 3, OIIO::TypeDesc::UINT16},
    {PXR_NS::HgiFormatUInt16Vec4, 4, OIIO::TypeDesc::UINT16},
    {PXR_NS::HgiFormatInt32, 1, OIIO::TypeDesc::INT32},
    {PXR_NS::HgiFormatInt32Vec2, 2, OIIO::TypeDesc::INT32},
    {PXR_NS::HgiFormatInt32Vec3, 3, OIIO::TypeDesc::INT32},
    {PXR_NS::HgiFormatInt32Vec4, 4, OIIO::TypeDesc::INT32},
    {PXR_NS::HgiFormatUNorm8Vec4srgb, 4, OIIO::TypeDesc::UINT8},
}};

constexpr bool indexedByValue() {
    for (size_t i = 0; i < kHgiLayouts.size(); ++i) {
        if (static_cast<size_t>(kHgiLayouts[i].format) != i) {
            return false;
        }
    }
    return true;
}
static_assert(indexedByValue(), "kHgiLayouts must list the formats in the order of their values");

// The layout of `format`, or null (after logging) for a format we don't translate.
const HgiLayout* findHgiLayout(PXR_NS::HgiFormat format) {
    if (format < 0 || static_cast<size_t>(format) >= kHgiLayouts.size()) {
        VOREL_LOG(err, "Unsupported hgiFormat");
        return nullptr;
    }
    return &kHgiLayouts[static_cast<size_t>(format)];
}

}  // namespace

int getNumChannelsFromHgiFormat(PXR_NS::HgiFormat format) {
    const HgiLayout* layout = findHgiLayout(format);
    return layout ? layout->channels : 0;
}

OIIO::TypeDesc getOIIOTypeDescFromHgiFormat(PXR_NS::HgiFormat format) {
    const HgiLayout* layout = findHgiLayout(format);
    return OIIO::TypeDesc(layout ? layout->channelType : OIIO::TypeDesc::FLOAT);
}

// ---------------------------------------------------------------------------------------------
// Supported extensions
// ---------------------------------------------------------------------------------------------

std::vector<std::string> getSupportedImageExtensions() {
    // Parsed anew on every call: the list is OpenImageIO's to change, not ours to keep.
    const std::map<std::string, std::vector<std::string>> extensionsByFormat =
        OIIO::get_extension_map();
    std::vector<std::string> extensions;
    extensions.reserve(extensionsByFormat.size());
    // The map's order (format names, byte by byte) is the order of the result; extensions stay
    // as OpenImageIO lists them, duplicates across formats included.
    for (const auto& [format, formatExtensions] : extensionsByFormat) {
        extensions.insert(extensions.end(), formatExtensions.begin(), formatExtensions.end());
    }
    return extensions;
}

// ---------------------------------------------------------------------------------------------
// Extension colour policy and single images
// ---------------------------------------------------------------------------------------------

namespace {

// The colour policy of file extensions: lower-case, with the leading dot, no extension in two
// sets. "Strict" extensions are also checked by writeImage; "lenient" ones are only converted
// for. Built at load in this order and never changed afterwards.
const std::unordered_set<std::string> linearStrictExtensions{".exr"};
const std::unordered_set<std::string> linearLenientExtensions{".tif", ".tiff"};
const std::unordered_set<std::string> sRGBStrictExtensions{".jpg", ".jpeg", ".bmp", ".gif",
                                                           ".webp"};
const std::unordered_set<std::string> sRGBLenientExtensions{".png"};

/// The last extension of `path` in lower case, with its dot; "" when there is none.
std::string lowerExtension(const std::filesystem::path& path) {
    return base::strUtils::toLower(path.extension().string());
}

/// The one failure line of the writers that report through OpenImageIO's global error.
void logWriteFailure(const std::string& fileName) {
    VOREL_LOG(err, "Couldn't write image {}:\n{}", fileName, OIIO::geterror(true));
}

/// The format writer that OpenImageIO picks by the file name, or null after logging why not.
std::unique_ptr<OIIO::ImageOutput> createWriter(const std::string& fileName) {
    std::unique_ptr<OIIO::ImageOutput> out =
        OIIO::ImageOutput::create(fileName, /*ioproxy=*/nullptr, /*plugin_searchpath=*/"");
    if (!out) {
        logWriteFailure(fileName);
    }
    return out;
}

}  // namespace

std::string getColorSpaceForExtension(const std::filesystem::path& path) {
    const std::string extension = lowerExtension(path);
    if (sRGBLenientExtensions.count(extension) != 0 || sRGBStrictExtensions.count(extension) != 0) {
        return "sRGB";
    }
    if (linearLenientExtensions.count(extension) != 0 ||
        linearStrictExtensions.count(extension) != 0) {
        return "linear";
    }
    return std::string();
}

bool colorConvertByFormat(Image& image, const std::filesystem::path& path) {
    const std::string extension = lowerExtension(path);
    const std::string colorSpace = getColorSpace(image);
    if (colorSpace.empty()) {
        VOREL_LOG(warn, "Image has no color space set and is unknown, no conversions will be done");
        return false;
    }
    const std::string target = getColorSpaceForExtension(path);
    if (target.empty() || colorSpace == target) {
        VOREL_LOG(debug, "No color conversion needed for extension '{}'", extension);
        return false;
    }
    // A failed conversion leaves the empty Image in place: colorConvert has logged why.
    image = colorConvert(image, colorSpace, target);
    VOREL_LOG(debug, "Converted image from '{}' to '{}' for extension '{}'", colorSpace, target,
              extension);
    if (target == "linear") {
        VOREL_LOG(warn,
                  "Converting to linear space, this is not normally recommended and could result "
                  "in loss of information.  It would be better  to keep everything in linear "
                  "space before exporting");
    }
    return true;
}

bool writeImage(const Image& image, const std::filesystem::path& path, int compressionLevel) {
    base::Timer timer(/*startNow=*/true);
    const std::string fileName = base::convertPathToString(path);
    const std::unique_ptr<OIIO::ImageOutput> out = createWriter(fileName);
    if (!out) {
        return false;
    }
    // Options go to this copy only: the caller's image keeps its own spec.
    OIIO::ImageSpec spec = image.buffer.spec();
    const std::string extension = lowerExtension(path);
    const std::string colorSpace = getColorSpace(image);
    // A mismatch is reported, never corrected or refused: converting is the caller's step.
    if (colorSpace.empty()) {
        VOREL_LOG(warn,
                  "Image has no color space set, unable to verify the correct color space is used "
                  "for writing to disk for the specified extension");
    } else {
        if (sRGBStrictExtensions.count(extension) != 0 && colorSpace != "sRGB") {
            VOREL_LOG(err,
                      "Image with color space '{}' cannot be written to '{}' extension, which "
                      "requires sRGB color space. Please convert the image to sRGB before writing.",
                      colorSpace, extension);
        }
        if (linearStrictExtensions.count(extension) != 0 && colorSpace != "linear") {
            VOREL_LOG(err,
                      "Image with color space '{}' cannot be written to '{}' extension, which "
                      "requires linear color space. Please convert the image to linear before "
                      "writing.",
                      colorSpace, extension);
        }
    }
    VOREL_LOG(debug, "Writing image with color space '{}' to {}", colorSpace, fileName);
    if (extension == ".png" && compressionLevel >= 0) {
        VOREL_LOG(debug, "Writing PNG image with compression level {} to {}", compressionLevel,
                  fileName);
        spec.attribute("png:compressionLevel", compressionLevel);
    }
    if (!out->open(fileName, spec, OIIO::ImageOutput::Create)) {
        logWriteFailure(fileName);
        return false;
    }
    if (!image.buffer.write(out.get(), nullptr, nullptr)) {
        logWriteFailure(fileName);
        return false;
    }
    out->close();
    timer.stop();
    VOREL_LOG(debug, "Writing image of {}x{} resolution to {} took: {}ms", spec.width, spec.height,
              fileName, timer.duration());
    return true;
}

// ---------------------------------------------------------------------------------------------
// Multi-part EXR
// ---------------------------------------------------------------------------------------------

namespace {

/// The writer's pending message, passed through `buffer`'s error state and taken back from it,
/// so that neither the writer nor the buffer is left with it pending.
std::string relayWriterError(OIIO::ImageOutput& out, const OIIO::ImageBuf& buffer) {
    buffer.error(out.geterror(true));
    return buffer.geterror(true);
}

/// ImageOutput::open for all subimages at once. In OpenImageIO 2.4.7 only the OpenEXR and GIF
/// writers answer a count of 0 themselves; every other writer falls back to opening `specs[0]`,
/// which for 0 subimages is no spec at all, and crashes. For those the count of 0 is refused here
/// the way a writer refuses, with the reason left on `out`.
bool openAllSubimages(OIIO::ImageOutput& out, const std::string& fileName, int numImages,
                      const OIIO::ImageSpec* specs) {
    if (numImages == 0) {
        const std::string_view format = out.format_name();
        if (format != "openexr" && format != "gif") {
            out.errorfmt("{} writer can't take 0 subimages", format);
            return false;
        }
    }
    return out.open(fileName, numImages, specs);
}

}  // namespace

bool writeMultiPartEXR(const std::vector<std::string>& layerNames, const std::vector<Image>& images,
                       const std::filesystem::path& path) {
    if (layerNames.size() != images.size()) {
        VOREL_LOG(err, "layerNames (arg1) and images (arg2) must be of the same length");
        return false;
    }
    const std::string fileName = base::convertPathToString(path);
    const std::unique_ptr<OIIO::ImageOutput> out = createWriter(fileName);
    if (!out) {
        return false;
    }
    const int numImages = static_cast<int>(images.size());
    // The writer reads these specs at every open and write: they live until the end.
    std::vector<OIIO::ImageSpec> specs(numImages);
    for (int i = 0; i < numImages; ++i) {
        OIIO::ImageSpec spec = images[i].buffer.spec();
        spec.attribute("oiio:subimagename", OIIO::string_view(layerNames[i]));
        specs[i] = spec;
    }
    if (!openAllSubimages(*out, fileName, numImages, specs.data())) {
        // With no image to pass it through, the writer's text goes straight to the log.
        VOREL_LOG(err, "fail to open {}",
                  images.empty() ? out->geterror(true) : relayWriterError(*out, images[0].buffer));
        return false;
    }
    for (int i = 0; i < numImages; ++i) {
        const OIIO::ImageBuf& buffer = images[i].buffer;
        if (i > 0 && !out->open(fileName, specs[i], OIIO::ImageOutput::AppendSubimage)) {
            VOREL_LOG(err, "fail to open for subimage{}", relayWriterError(*out, buffer));
            return false;
        }
        if (!out->write_image(specs[i].format, buffer.localpixels(), OIIO::AutoStride,
                              OIIO::AutoStride, OIIO::AutoStride, nullptr, nullptr)) {
            VOREL_LOG(err, "fail to write {}", relayWriterError(*out, buffer));
            return false;
        }
    }
    out->close();
    return true;
}

// ---------------------------------------------------------------------------------------------
// Animated GIF
// ---------------------------------------------------------------------------------------------

namespace {

/// ImageOutput::open for one frame. The GIF writer of OpenImageIO 2.4.7 keeps its frame store at
/// the first frame's size: a larger frame overruns it and takes the process down at close, and a
/// smaller or reshaped one comes back at the first frame's size. Such a frame is refused here the
/// way the writer refuses a frame, with the reason left on `out`.
bool openFrame(OIIO::ImageOutput& out, const std::string& fileName, const OIIO::ImageSpec& spec,
               OIIO::ImageOutput::OpenMode mode, const OIIO::ImageSpec& firstFrame) {
    if (mode == OIIO::ImageOutput::AppendSubimage &&
        (spec.width != firstFrame.width || spec.height != firstFrame.height) &&
        std::string_view(out.format_name()) == "gif") {
        out.errorfmt("gif writer can't take a {}x{} frame after a {}x{} first frame", spec.width,
                     spec.height, firstFrame.width, firstFrame.height);
        return false;
    }
    return out.open(fileName, spec, mode);
}

}  // namespace

bool writeAnimatedGif(const std::vector<Image>& frames, const std::filesystem::path& path,
                      float framesPerSecond) {
    const std::string fileName = base::convertPathToString(path);
    const std::unique_ptr<OIIO::ImageOutput> out = createWriter(fileName);
    if (!out) {
        return false;
    }
    constexpr OIIO::TypeDesc eightBit(OIIO::TypeDesc::UINT8, OIIO::TypeDesc::SCALAR,
                                      OIIO::TypeDesc::NOXFORM, /*arraylen=*/0);
    // From here on the writer reports through the frames only: nothing is logged.
    for (size_t i = 0; i < frames.size(); ++i) {
        const OIIO::ImageBuf& buffer = frames[i].buffer;
        OIIO::ImageSpec spec = buffer.spec();
        spec.tile_width = 0;
        spec.tile_height = 0;
        spec.tile_depth = 0;
        spec.attribute("FramesPerSecond", framesPerSecond);
        spec.set_format(eightBit);
        spec.channelformats.clear();
        const OIIO::ImageOutput::OpenMode mode =
            i == 0 ? OIIO::ImageOutput::Create : OIIO::ImageOutput::AppendSubimage;
        if (!openFrame(*out, fileName, spec, mode, frames[0].buffer.spec())) {
            buffer.error(out->geterror(true));
            return false;
        }
        if (!buffer.write(out.get(), nullptr, nullptr)) {
            return false;
        }
    }
    out->close();
    return true;
}

// ---------------------------------------------------------------------------------------------
// Renderer-ready textures
// ---------------------------------------------------------------------------------------------

namespace {

/// What maketx's "--fixnan" and "--checknan" make of each NaN policy.
const char* fixNanName(NanHandling handling) {
    switch (handling) {
        case NanHandling::FixBlack:
            return "black";
        case NanHandling::FixBox3:
            return "box3";
        default:
            return "none";
    }
}

/// make_texture's configuration as maketx builds it from its command line. Where make_texture's
/// own defaults differ from maketx's (the bilinear MIP filter, separate planes), maketx's stand:
/// a texture made here matches one that maketx makes with the same options.
OIIO::ImageSpec textureConfig(const TextureOptions& options) {
    OIIO::ImageSpec config;
    config.tile_width = options.tileWidth;
    config.tile_height = options.tileHeight;
    config.tile_depth = 1;
    config.format = OIIO::TypeDesc(options.dataFormat);  // "" is UNKNOWN: the image's own type
    config.attribute("compression", options.compression);
    config.attribute("planarconfig", "contig");
    // OpenImageIO's readers keep a texture's pixel fingerprint ("oiio:SHA-1", by which the
    // texture cache shares duplicates) only when the file says OpenImageIO made it.
    config.attribute("Software",
                     fmt::format("OpenImageIO {} : vorel_usd_image_processing makeTexture",
                                 OIIO_VERSION_STRING));
    config.attribute("maketx:filtername", options.mipFilter);
    config.attribute("maketx:constant_color_detect", int(options.constantColorDetect));
    config.attribute("maketx:opaque_detect", int(options.opaqueDetect));
    config.attribute("maketx:monochrome_detect", int(options.monochromeDetect));
    config.attribute("maketx:checknan", int(options.nanHandling == NanHandling::Fail));
    config.attribute("maketx:fixnan", fixNanName(options.nanHandling));
    config.attribute("maketx:highlightcomp", int(options.highlightCompensation));
    return config;
}

}  // namespace

bool makeTexture(const Image& image, const std::filesystem::path& path,
                 const TextureOptions& options) {
    base::Timer timer(/*startNow=*/true);
    const std::string fileName = base::convertPathToString(path);
    // TypeDesc reads an unknown name as UNKNOWN, which make_texture takes for "as the image".
    if (!options.dataFormat.empty() && OIIO::TypeDesc(options.dataFormat) == OIIO::TypeUnknown) {
        VOREL_LOG(err, "Couldn't make texture {}:\n{}", fileName,
                  fmt::format("unknown data format \"{}\"", options.dataFormat));
        return false;
    }
    const auto mode = options.mode == TextureMode::LatLongEnvironment
                          ? OIIO::ImageBufAlgo::MakeTxEnvLatl
                          : OIIO::ImageBufAlgo::MakeTxTexture;
    // make_texture writes every attribute of its source, and a CMYK file's make the TIFF writer
    // encode a separated file that OpenImageIO 2.4.7 can't read back tiled. Such sources are rare:
    // only they pay for a copy without those attributes.
    std::optional<Image> rgbSource;
    if (!cmykEncodingAttributes(image.buffer.spec()).empty()) {
        removeCmykAttributes(rgbSource.emplace(image));
    }
    const OIIO::ImageBuf& source = rgbSource ? rgbSource->buffer : image.buffer;
    if (!OIIO::ImageBufAlgo::make_texture(mode, source, fileName, textureConfig(options))) {
        VOREL_LOG(err, "Couldn't make texture {}:\n{}", fileName, OIIO::geterror(true));
        return false;
    }
    timer.stop();
    VOREL_LOG(debug, "Making texture of {}x{} resolution to {} took: {}ms",
              image.buffer.spec().width, image.buffer.spec().height, fileName, timer.duration());
    return true;
}

// ---------------------------------------------------------------------------------------------
// Metadata
// ---------------------------------------------------------------------------------------------

namespace {

/// The first `arraylen` values of an array attribute.
template <typename T>
std::vector<T> arrayValues(const OIIO::ParamValue& attribute) {
    const T* const values = static_cast<const T*>(attribute.data());
    return std::vector<T>(values, values + attribute.type().arraylen);
}

/// The order of the tests matters: strings first, then arrays before plain values, so that an
/// array of length 1 stays a vector. The aggregate is not looked at.
MetadataValue toMetadataValue(const OIIO::ParamValue& attribute) {
    const OIIO::TypeDesc type = attribute.type();
    if (type.basetype == OIIO::TypeDesc::STRING) {
        return attribute.get_string(/*maxsize=*/64);
    }
    if (type.basetype == OIIO::TypeDesc::INT32 && type.arraylen > 0) {
        return arrayValues<int>(attribute);
    }
    if (type.basetype == OIIO::TypeDesc::FLOAT && type.arraylen > 0) {
        return arrayValues<float>(attribute);
    }
    if (type.basetype == OIIO::TypeDesc::INT32) {
        return attribute.get_int(0);
    }
    if (type.basetype == OIIO::TypeDesc::FLOAT) {
        return attribute.get_float(0.0f);
    }
    // No widening or narrowing of other types: the caller still learns the name exists.
    VOREL_LOG(warn, "Unsupported OIIO metadata value type");
    return std::string();
}

}  // namespace

MetadataMap getMetadataFromImage(const Image& image) {
    MetadataMap metadata;
    for (const OIIO::ParamValue& attribute : image.buffer.spec().extra_attribs) {
        metadata[attribute.name().string()] = toMetadataValue(attribute);
    }
    return metadata;
}

bool addMetadataToImage(Image& image, const MetadataMap& metadata) {
    OIIO::ImageSpec& spec = image.buffer.specmod();
    for (const auto& [name, value] : metadata) {
        switch (value.index()) {
            case 0:
                spec.attribute(name, std::get<std::string>(value));
                break;
            case 1:
                spec.attribute(name, std::get<int>(value));
                break;
            case 2:
                spec.attribute(name, std::get<float>(value));
                break;
            default:
                // Arrays aren't written (and there is no rollback of the entries before).
                VOREL_LOG(err, "Unsupported metadata value type");
                return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// ID images
// ---------------------------------------------------------------------------------------------

bool convertIdImageToUint(Image& image) {
    OIIO::ImageSpec& spec = image.buffer.specmod();
    if (!isScalarOf(spec.format, OIIO::TypeDesc::INT32)) {
        VOREL_LOG(err, "Can't convert non-ID image: {} format", spec.format.c_str());
        return false;
    }
    void* const pixels = image.buffer.localpixels();
    // Counted in size_t: a spec can claim more samples than an int counts. A claim that no memory
    // could hold can't describe local pixels either.
    const std::optional<size_t> bytes =
        checkedProduct({spec.nchannels, spec.height, spec.width, sizeof(std::int32_t)});
    if (pixels == nullptr || !bytes) {
        VOREL_LOG(err, "Can't modify image with non-local pixels");
        return false;
    }
    // Each sample is read as int32_t and written back as uint32_t in the same 32 bits (signed and
    // unsigned views of one object may alias). The unsigned sum keeps 2147483647 + 1 exact.
    const std::int32_t* const ids = static_cast<const std::int32_t*>(pixels);
    std::uint32_t* const shifted = static_cast<std::uint32_t*>(pixels);
    const size_t sampleCount = *bytes / sizeof(std::int32_t);
    for (size_t i = 0; i < sampleCount; ++i) {
        const std::int32_t id = ids[i];
        shifted[i] = id < 0 ? 0u : static_cast<std::uint32_t>(id) + 1u;
    }
    // Same sample size, so the pixels stay where they are and only the recorded type changes.
    spec.format = OIIO::TypeDesc(OIIO::TypeDesc::UINT32, OIIO::TypeDesc::SCALAR,
                                 OIIO::TypeDesc::NOSEMANTICS, 0);
    return true;
}

}  // namespace vorel::usd::image_processing
