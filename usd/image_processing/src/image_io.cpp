// Images in and out of files and memory.

#include <vorel/usd/image_processing/image_processing.h>

#include <map>
#include <memory>
#include <utility>

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

// ---------------------------------------------------------------------------------------------
// ID images
// ---------------------------------------------------------------------------------------------

}  // namespace vorel::usd::image_processing
