// Images in and out of files and memory.

#include <vorel/usd/image_processing/image_processing.h>

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <variant>

#include <vorel/base/logging.h>
#include <vorel/base/path_utils.h>

#include "pixel_types.h"

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

// ---------------------------------------------------------------------------------------------
// Hgi format vocabulary
// ---------------------------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------------------------
// Multi-part EXR
// ---------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------
// Animated GIF
// ---------------------------------------------------------------------------------------------

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
    if (pixels == nullptr) {
        VOREL_LOG(err, "Can't modify image with non-local pixels");
        return false;
    }
    // Each sample is read as int32_t and written back as uint32_t in the same 32 bits (signed and
    // unsigned views of one object may alias). The unsigned sum keeps 2147483647 + 1 exact.
    const std::int32_t* const ids = static_cast<const std::int32_t*>(pixels);
    std::uint32_t* const shifted = static_cast<std::uint32_t*>(pixels);
    const int sampleCount = spec.nchannels * spec.height * spec.width;
    for (int i = 0; i < sampleCount; ++i) {
        const std::int32_t id = ids[i];
        shifted[i] = id < 0 ? 0u : static_cast<std::uint32_t>(id) + 1u;
    }
    // Same sample size, so the pixels stay where they are and only the recorded type changes.
    spec.format = OIIO::TypeDesc(OIIO::TypeDesc::UINT32, OIIO::TypeDesc::SCALAR,
                                 OIIO::TypeDesc::NOSEMANTICS, 0);
    return true;
}

}  // namespace vorel::usd::image_processing
