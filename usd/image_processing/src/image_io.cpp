// Images in and out of files and memory.

#include <vorel/usd/image_processing/image_processing.h>

#include <memory>
#include <string_view>
#include <unordered_set>
#include <utility>

#include <vorel/base/logging.h>
#include <vorel/base/path_utils.h>
#include <vorel/base/str_utils.h>
#include <vorel/base/timing.h>

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

bool colorConvertByFormat(Image& image, const std::filesystem::path& path) {
    const std::string extension = lowerExtension(path);
    const std::string colorSpace = getColorSpace(image);
    if (colorSpace.empty()) {
        VOREL_LOG(warn, "Image has no color space set and is unknown, no conversions will be done");
        return false;
    }
    // A failed conversion leaves the empty Image in place: colorConvert has logged why.
    if ((sRGBLenientExtensions.count(extension) != 0 ||
         sRGBStrictExtensions.count(extension) != 0) &&
        colorSpace != "sRGB") {
        image = colorConvert(image, colorSpace, "sRGB");
        VOREL_LOG(debug, "Converted image from '{}' to 'sRGB' for extension '{}'", colorSpace,
                  extension);
        return true;
    }
    if ((linearLenientExtensions.count(extension) != 0 ||
         linearStrictExtensions.count(extension) != 0) &&
        colorSpace != "linear") {
        image = colorConvert(image, colorSpace, "linear");
        VOREL_LOG(debug, "Converted image from '{}' to 'linear' for extension '{}'", colorSpace,
                  extension);
        VOREL_LOG(warn,
                  "Converting to linear space, this is not normally recommended and could result "
                  "in loss of information.  It would be better  to keep everything in linear "
                  "space before exporting");
        return true;
    }
    VOREL_LOG(debug, "No color conversion needed for extension '{}'", extension);
    return false;
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
