#pragma once
// Stand-in for OpenUSD 25.05's pxr/imaging/hio/image.h: reading images through HioImage.

#include <memory>
#include <string>

#include <pxr/imaging/hio/api.h>
#include <pxr/imaging/hio/types.h>
#include <pxr/pxr.h>

PXR_NAMESPACE_OPEN_SCOPE

using HioImageSharedPtr = std::shared_ptr<class HioImage>;

/// An image file opened for reading. The reader is chosen by the lower-cased extension: bmp,
/// jpg, jpeg, png, tga and hdr; exr; tif and tiff.
class HIO_API HioImage {
public:
    /// How the pixels' colour space is decided: taken as linear (Raw), as sRGB (SRGB), or from
    /// the file (Auto).
    enum SourceColorSpace { Raw, SRGB, Auto };

    /// Where and how Read delivers pixels: `data` must hold width x height pixels of `format`.
    struct StorageSpec {
        int width = 0;
        int height = 0;
        int depth = 0;
        HioFormat format = HioFormatInvalid;
        /// Rows bottom row first instead of top row first.
        bool flipped = false;
        void* data = nullptr;
    };

    HioImage() = default;
    virtual ~HioImage();
    HioImage(const HioImage&) = delete;
    HioImage& operator=(const HioImage&) = delete;

    /// Opens `filename` and reads its description, not yet its pixels. Returns null, without a
    /// message, for a missing or undecodable file, an extension no reader handles, or a subimage
    /// or mip level other than 0.
    static HioImageSharedPtr OpenForReading(std::string const& filename, int subimage = 0,
                                            int mip = 0, SourceColorSpace sourceColorSpace = Auto,
                                            bool suppressErrors = false);

    /// Decodes all pixels into `storage.data`, which must be of GetFormat(); pixels are
    /// resampled when `storage` asks for another width or height. False for another format or
    /// when decoding fails.
    virtual bool Read(StorageSpec const& storage) = 0;

    virtual std::string const& GetFilename() const = 0;
    virtual int GetWidth() const = 0;
    virtual int GetHeight() const = 0;
    /// The format the pixels are delivered in; an 8-bit format's sRGB twin when
    /// IsColorSpaceSRGB() is true.
    virtual HioFormat GetFormat() const = 0;
    virtual int GetBytesPerPixel() const = 0;
    virtual bool IsColorSpaceSRGB() const = 0;
};

PXR_NAMESPACE_CLOSE_SCOPE
