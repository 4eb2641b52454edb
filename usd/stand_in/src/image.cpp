// HioImage over OpenImageIO, behaving as OpenUSD's own readers do: the stb-based reader for
// bmp, jpg, jpeg, png, tga and hdr files, and the OpenEXR and TIFF readers.

#include <pxr/imaging/hio/image.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imageio.h>

PXR_NAMESPACE_OPEN_SCOPE

namespace {

enum class Reader { None, Stb, OpenExr, Tiff };

std::string lowerCaseExtension(const std::string& filename) {
    std::string extension = std::filesystem::path(filename).extension().string();
    if (!extension.empty()) {
        extension.erase(0, 1);  // the dot
    }
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

Reader readerFor(const std::string& filename) {
    const std::string extension = lowerCaseExtension(filename);
    for (const char* stbExtension : {"bmp", "jpg", "jpeg", "png", "tga", "hdr"}) {
        if (extension == stbExtension) {
            return Reader::Stb;
        }
    }
    if (extension == "exr") {
        return Reader::OpenExr;
    }
    if (extension == "tif" || extension == "tiff") {
        return Reader::Tiff;
    }
    return Reader::None;
}

// stb_image recognises its formats by content whatever the extension says, the OpenEXR and
// TIFF readers only their own.
bool decodes(Reader reader, const std::string& oiioFormatName) {
    switch (reader) {
        case Reader::Stb:
            for (const char* name : {"bmp", "jpeg", "png", "targa", "hdr"}) {
                if (oiioFormatName == name) {
                    return true;
                }
            }
            return false;
        case Reader::OpenExr:
            return oiioFormatName == "openexr";
        case Reader::Tiff:
            return oiioFormatName == "tiff";
        case Reader::None:
            break;
    }
    return false;
}

// The one-component member of the family that holds samples of `type` unchanged. Unsigned
// 32-bit samples go to Int32, as OpenUSD's OpenEXR reader delivers them.
HioFormat familyHolding(OIIO::TypeDesc type) {
    switch (type.basetype) {
        case OIIO::TypeDesc::UINT8:
            return HioFormatUNorm8;
        case OIIO::TypeDesc::INT8:
            return HioFormatSNorm8;
        case OIIO::TypeDesc::UINT16:
            return HioFormatUInt16;
        case OIIO::TypeDesc::INT16:
            return HioFormatInt16;
        case OIIO::TypeDesc::HALF:
            return HioFormatFloat16;
        case OIIO::TypeDesc::FLOAT:
            return HioFormatFloat32;
        case OIIO::TypeDesc::DOUBLE:
            return HioFormatDouble64;
        case OIIO::TypeDesc::UINT32:
        case OIIO::TypeDesc::INT32:
            return HioFormatInt32;
        default:
            return HioFormatInvalid;
    }
}

// How a file's samples become the delivered ones: the type asked of OpenImageIO, whether 16-bit
// samples are then cut to 8 bits, and the family they end up in.
struct Decoding {
    OIIO::TypeDesc sampleType;
    bool narrowTo8Bits;
    HioFormat family;
};

Decoding decodingFor(Reader reader, const OIIO::TypeDesc& fileType) {
    if (reader != Reader::Stb) {
        return {fileType, false, familyHolding(fileType)};
    }
    // stb_image gives floats for HDR files and 8 bits for everything else; it cuts 16-bit
    // samples to their high byte rather than rounding as OpenImageIO's conversion would.
    if (fileType.is_floating_point()) {
        return {OIIO::TypeDesc::FLOAT, false, HioFormatFloat32};
    }
    if (fileType == OIIO::TypeDesc::UINT16) {
        return {OIIO::TypeDesc::UINT16, true, HioFormatUNorm8};
    }
    return {OIIO::TypeDesc::UINT8, false, HioFormatUNorm8};
}

std::uint32_t bigEndian32(const unsigned char* bytes) {
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
           (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
}

// The gamma of a PNG file's gAMA chunk, or 0 without one. Read from the file itself because
// OpenImageIO doesn't report the chunk when an sRGB chunk stands beside it.
double pngGamma(const std::string& filename) {
    constexpr double kGammaScale = 100000.0;
    std::ifstream file(filename, std::ios::binary);
    unsigned char signature[8];
    if (!file.read(reinterpret_cast<char*>(signature), sizeof signature)) {
        return 0.0;
    }
    unsigned char chunkHeader[8];  // length, then type
    while (file.read(reinterpret_cast<char*>(chunkHeader), sizeof chunkHeader)) {
        const std::uint32_t length = bigEndian32(chunkHeader);
        const std::string type(chunkHeader + 4, chunkHeader + 8);
        if (type == "IDAT") {
            break;  // gAMA must come before the image data
        }
        if (type == "gAMA" && length == 4) {
            unsigned char value[4];
            if (!file.read(reinterpret_cast<char*>(value), sizeof value)) {
                break;
            }
            return bigEndian32(value) / kGammaScale;
        }
        file.seekg(std::streamoff{length} + 4, std::ios::cur);  // data and CRC
    }
    return 0.0;
}

bool isColorSpaceSRGB(Reader reader, HioImage::SourceColorSpace sourceColorSpace, double gamma,
                      HioFormat family, int channels) {
    constexpr double kGammaTolerance = 0.1;
    constexpr double kSRGBGamma = 0.45455;
    if (reader == Reader::OpenExr) {
        return false;
    }
    if (sourceColorSpace != HioImage::Auto) {
        return sourceColorSpace == HioImage::SRGB;
    }
    if (std::fabs(gamma - kSRGBGamma) < kGammaTolerance) {
        return true;
    }
    if (std::fabs(gamma - 1.0) < kGammaTolerance) {
        return false;
    }
    return family == HioFormatUNorm8 && (channels == 3 || channels == 4);
}

// Opens a file for decoding its samples as stored. OpenImageIO would otherwise associate colour
// with an unassociated alpha (PNG, TGA, TIFF), which OpenUSD's readers don't. A failure leaves
// nothing pending in OpenImageIO's global error, since this layer fails silently.
std::unique_ptr<OIIO::ImageInput> openInput(const std::string& filename) {
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    std::unique_ptr<OIIO::ImageInput> input = OIIO::ImageInput::open(filename, &config);
    if (!input) {
        OIIO::geterror(true);
    }
    return input;
}

std::vector<unsigned char> narrowTo8Bits(const std::vector<unsigned char>& samples16) {
    std::vector<unsigned char> samples8(samples16.size() / 2);
    for (size_t i = 0; i < samples8.size(); ++i) {
        std::uint16_t sample;
        std::memcpy(&sample, samples16.data() + 2 * i, sizeof sample);
        samples8[i] = static_cast<unsigned char>(sample >> 8);
    }
    return samples8;
}

class OIIOImage final : public HioImage {
public:
    OIIOImage(std::string filename, int width, int height, int channels, Decoding decoding,
              HioFormat format, bool sRGB)
        : filename_(std::move(filename)),
          width_(width),
          height_(height),
          channels_(channels),
          decoding_(decoding),
          format_(format),
          sRGB_(sRGB) {}

    bool Read(StorageSpec const& storage) override {
        if (storage.format != format_ || storage.width <= 0 || storage.height <= 0 ||
            storage.data == nullptr) {
            return false;
        }
        std::vector<unsigned char> pixels = decode();
        // OpenUSD's readers resample to the size asked for rather than refusing it.
        if (!pixels.empty() && (storage.width != width_ || storage.height != height_)) {
            pixels = resized(pixels, storage.width, storage.height);
        }
        if (pixels.empty()) {
            return false;
        }
        const size_t rowBytes = static_cast<size_t>(storage.width) * GetBytesPerPixel();
        auto* target = static_cast<unsigned char*>(storage.data);
        for (int row = 0; row < storage.height; ++row) {
            const int sourceRow = storage.flipped ? storage.height - 1 - row : row;
            std::memcpy(target + row * rowBytes, pixels.data() + sourceRow * rowBytes, rowBytes);
        }
        return true;
    }

    std::string const& GetFilename() const override { return filename_; }
    int GetWidth() const override { return width_; }
    int GetHeight() const override { return height_; }
    HioFormat GetFormat() const override { return format_; }
    int GetBytesPerPixel() const override {
        return static_cast<int>(HioGetDataSizeOfFormat(format_));
    }
    bool IsColorSpaceSRGB() const override { return sRGB_; }

private:
    // All samples top row first in the delivered type, or nothing when the file can't be
    // decoded (any more) as it was described.
    std::vector<unsigned char> decode() const {
        const std::unique_ptr<OIIO::ImageInput> input = openInput(filename_);
        if (!input || input->spec().width != width_ || input->spec().height != height_ ||
            input->spec().nchannels != channels_) {
            return {};
        }
        std::vector<unsigned char> samples(static_cast<size_t>(width_) * height_ * channels_ *
                                           decoding_.sampleType.size());
        if (!input->read_image(0, 0, 0, channels_, decoding_.sampleType, samples.data())) {
            return {};
        }
        return decoding_.narrowTo8Bits ? narrowTo8Bits(samples) : samples;
    }

    // Delivered samples resampled from the image's size to width x height; nothing on failure.
    std::vector<unsigned char> resized(std::vector<unsigned char>& pixels, int width,
                                       int height) const {
        const OIIO::TypeDesc type =
            decoding_.narrowTo8Bits ? OIIO::TypeDesc::UINT8 : decoding_.sampleType;
        const OIIO::ImageBuf source(OIIO::ImageSpec(width_, height_, channels_, type),
                                    pixels.data());
        const OIIO::ImageBuf target = OIIO::ImageBufAlgo::resize(
            source, "", 0.0f, OIIO::ROI(0, width, 0, height, 0, 1, 0, channels_));
        std::vector<unsigned char> samples(static_cast<size_t>(width) * height * channels_ *
                                           type.size());
        if (target.has_error() || !target.get_pixels(target.roi(), type, samples.data())) {
            return {};
        }
        return samples;
    }

    std::string filename_;
    int width_;
    int height_;
    int channels_;
    Decoding decoding_;
    HioFormat format_;
    bool sRGB_;
};

}  // namespace

HioImage::~HioImage() = default;

HioImageSharedPtr HioImage::OpenForReading(std::string const& filename, int subimage, int mip,
                                           SourceColorSpace sourceColorSpace,
                                           bool /*suppressErrors: this layer never reports*/) {
    const Reader reader = readerFor(filename);
    if (subimage != 0 || mip != 0 || reader == Reader::None) {
        return nullptr;
    }
    const std::unique_ptr<OIIO::ImageInput> input = openInput(filename);
    if (!input || !decodes(reader, input->format_name())) {
        return nullptr;
    }
    const OIIO::ImageSpec& spec = input->spec();
    const Decoding decoding = decodingFor(reader, spec.format);
    if (decoding.family == HioFormatInvalid || spec.nchannels < 1 || spec.nchannels > 4) {
        return nullptr;
    }
    const double gamma = std::string(input->format_name()) == "png" ? pngGamma(filename) : 0.0;
    const bool sRGB =
        isColorSpaceSRGB(reader, sourceColorSpace, gamma, decoding.family, spec.nchannels);
    const HioFormat family =
        sRGB && decoding.family == HioFormatUNorm8 ? HioFormatUNorm8srgb : decoding.family;
    const auto format = static_cast<HioFormat>(family + spec.nchannels - 1);
    return std::make_shared<OIIOImage>(filename, spec.width, spec.height, spec.nchannels, decoding,
                                       format, sRGB);
}

PXR_NAMESPACE_CLOSE_SCOPE
