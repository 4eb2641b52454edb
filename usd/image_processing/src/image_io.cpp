// Images in and out of files and memory.

#include <vorel/usd/image_processing/image_processing.h>

#include <array>
#include <memory>
#include <utility>
#include <vector>

#include <pxr/imaging/hio/image.h>
#include <pxr/imaging/hio/types.h>
#include <vorel/base/logging.h>
#include <vorel/base/path_utils.h>

namespace vorel::usd::image_processing {

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

Image readImage(const std::filesystem::path& path) {
    const std::string fileName = base::convertPathToString(path);
    const std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(fileName, nullptr, nullptr);
    if (in) {
        const OIIO::ImageSpec& spec = in->spec();
        // Uninitialised local storage: the decoder overwrites every sample, straight into the
        // buffer that the result keeps, with no ImageCache and no second copy.
        OIIO::ImageBuf buffer(spec, OIIO::InitializePixels::No);
        if (in->read_image(/*subimage=*/0, /*miplevel=*/0, /*chbegin=*/0, spec.nchannels,
                           spec.format, buffer.localpixels(), OIIO::AutoStride, OIIO::AutoStride,
                           OIIO::AutoStride, nullptr, nullptr)) {
            in->close();
            Image image;
            image.buffer = std::move(buffer);
            return image;
        }
    }
    VOREL_LOG(warn, "Couldn't read image {}:\n{}", fileName, OIIO::geterror(true));
    return Image{};
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

Image createImageFromData(void* data, int width, int height, int numChannels,
                          OIIO::TypeDesc format) {
    const OIIO::ImageSpec spec(width, height, numChannels, format);
    OIIO::ImageBuf buffer(spec, OIIO::InitializePixels::Yes);
    // The result of set_pixels is not what decides: the buffer's error state is.
    buffer.set_pixels(buffer.roi(), format, data, OIIO::AutoStride, OIIO::AutoStride,
                      OIIO::AutoStride);
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
    Image image;
    const PXR_NS::HioImageSharedPtr hioImage = PXR_NS::HioImage::OpenForReading(
        assetPath, /*subimage=*/0, /*mip=*/0, PXR_NS::HioImage::Auto, /*suppressErrors=*/false);
    if (!hioImage) {
        VOREL_LOG(err, "Failed to open image {}", assetPath);
        return Image{};
    }
    const size_t bytesPerPixel =
        PXR_NS::HioGetDataSizeOfFormat(hioImage->GetFormat(), nullptr, nullptr);
    // Hio delivers the format the file has, so nothing is converted, in its own row order.
    std::vector<unsigned char> pixels(
        static_cast<size_t>(hioImage->GetWidth() * hioImage->GetHeight()) * bytesPerPixel, 0);
    PXR_NS::HioImage::StorageSpec storage;
    storage.width = hioImage->GetWidth();
    storage.height = hioImage->GetHeight();
    storage.depth = 0;
    storage.format = hioImage->GetFormat();
    storage.flipped = false;
    storage.data = pixels.data();
    if (!hioImage->Read(storage)) {
        VOREL_LOG(err, "Reading of image {} failed", assetPath);
        return Image{};
    }
    // One UINT8 channel per byte of a pixel, whatever the format: a wider format's pixels come
    // through as their raw bytes.
    const OIIO::TypeDesc byteType(OIIO::TypeDesc::UINT8);
    image = createImageFromData(pixels.data(), hioImage->GetWidth(), hioImage->GetHeight(),
                                static_cast<int>(bytesPerPixel), byteType);
    if (getColorSpace(image).empty() && hioImage->IsColorSpaceSRGB()) {
        setColorSpace(image, "sRGB");
    }
    // createImageFromData has logged its own failure.
    if (!image.buffer.initialized()) {
        return Image{};
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

// ---------------------------------------------------------------------------------------------
// Extension colour policy and single images
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Multi-part EXR
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Animated GIF
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Metadata
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// ID images
// ---------------------------------------------------------------------------------------------

}  // namespace vorel::usd::image_processing
