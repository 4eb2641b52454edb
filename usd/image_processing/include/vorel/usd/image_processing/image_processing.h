#pragma once

/// @file
/// vorel_usd_image_processing: one plain value, Image, in front of OpenImageIO.
///
/// Every function reports failure through its ordinary result (the empty Image, false, 0, or a
/// width and height of 0) and one message on spdlog's default logger, whose source location names
/// "vorel_usd_image_processing" as the function. The library throws nothing of its own; what
/// OpenImageIO or the standard library throws (such as std::bad_alloc) reaches the caller.
/// Arguments taken by const reference are never changed.

#include <filesystem>
#include <map>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imageio.h>
#include <OpenImageIO/span.h>
#include <OpenImageIO/typedesc.h>
#include <pxr/imaging/hgi/types.h>

#if defined(_WIN32)
#if defined(VOREL_USD_IMAGE_PROCESSING_BUILDING)
#define VOREL_USD_IMAGE_PROCESSING_API __declspec(dllexport)
#else
#define VOREL_USD_IMAGE_PROCESSING_API __declspec(dllimport)
#endif
#else
#define VOREL_USD_IMAGE_PROCESSING_API __attribute__((visibility("default")))
#endif

/// Everything the library offers a host.
namespace vorel::usd::image_processing {

/// An image: OpenImageIO's ImageBuf (pixels, size, channels, pixel type and every attribute,
/// including the colour-space tag "oiio:ColorSpace") plus a map of strings that travels with it.
/// The library only carries `properties`: it never reads, adds or writes an entry, never stores
/// it as metadata and never writes it to a file. Operations that make a new Image from a source
/// copy the source's map; readers and failure values start with an empty one.
///
/// A default-constructed Image is the empty Image, the failure value of every function returning
/// an Image: test results with `buffer.initialized()`.
struct Image {
    OIIO::ImageBuf buffer;                          ///< Pixels, spec and attributes.
    std::map<std::string, std::string> properties;  ///< Carried along, never interpreted.

    /// The empty Image.
    VOREL_USD_IMAGE_PROCESSING_API Image();
    /// A deep copy: own pixels, same spec, attributes and properties.
    VOREL_USD_IMAGE_PROCESSING_API Image(const Image& other);
    /// Takes `other`'s pixels and map without copying; `other` is left with an empty map and
    /// may only be destroyed or assigned to.
    VOREL_USD_IMAGE_PROCESSING_API Image(Image&& other) noexcept;
    VOREL_USD_IMAGE_PROCESSING_API ~Image();
    /// A deep copy, also into an Image that was moved from.
    VOREL_USD_IMAGE_PROCESSING_API Image& operator=(const Image& other);
    /// Exchanges maps after clearing this one, so `other` ends with an empty map.
    VOREL_USD_IMAGE_PROCESSING_API Image& operator=(Image&& other) noexcept;
};

/// Width and height of an image file, in pixels. {0, 0} is the failure value of getImageSpec.
struct ImageSpec {
    int width;   ///< Pixels per row of the data window.
    int height;  ///< Rows of the data window.
};

/// The association of colour and alpha that preMultiply establishes.
enum class PreMultMode : int {
    Premult = 0,    ///< ImageBufAlgo::premult
    Unpremult = 1,  ///< ImageBufAlgo::unpremult
    Repremult = 2,  ///< ImageBufAlgo::repremult
};

// ---------------------------------------------------------------------------------------------
// Colour-space tag and pixel access
// ---------------------------------------------------------------------------------------------

/// @defgroup pixels Colour-space tag and pixel access
/// @{

/// The colour-space tag ("oiio:ColorSpace") as stored, or "" when the image has none. Never
/// fails; "unknown" is returned as it is.
VOREL_USD_IMAGE_PROCESSING_API std::string getColorSpace(const Image& image);

/// Sets the colour-space tag to `colorSpace`, replacing any previous value. Converts no pixel.
/// Logs a warning (and still sets it) when `colorSpace` is empty or exactly "unknown".
VOREL_USD_IMAGE_PROCESSING_API void setColorSpace(Image& image, const std::string& colorSpace);

/// The number of channels; 0 for the empty Image.
VOREL_USD_IMAGE_PROCESSING_API int getNumChannels(const Image& image);

/// One sample as a float, as ImageBuf::getchannel gives it (integer types are scaled to 0..1).
/// Never fails and never logs: a position outside the image reads as 0.0.
VOREL_USD_IMAGE_PROCESSING_API float getPixelValue(const Image& image, int x, int y, int z,
                                                   int channel);

/// One stored sample of a scalar UINT32 image, exact and unconverted. Returns 0 and logs at err
/// for any other pixel type ("getPixelUIntValue requires UINT image, but image is {}") or when
/// the sample can't be read ("get_pixels failed"); a stored 0 is told apart only by the log.
VOREL_USD_IMAGE_PROCESSING_API unsigned int getPixelUIntValue(const Image& image, int x, int y,
                                                              int z, int channel);

/// @}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

/// @defgroup reading Reading
/// @{

/// Reads the first subimage of a file at full resolution, with all its channels, in the pixel
/// type of the file and with every attribute the reader reports (such as "oiio:ColorSpace").
/// All pixels are in memory on return. On failure (missing file, no reader, a decoding error)
/// returns the empty Image and logs at warn "Couldn't read image {file}:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image readImage(const std::filesystem::path& path);

/// Width and height of the first subimage of a file, without reading pixels. On failure returns
/// {0, 0} and logs at err "Couldn't open image {file}:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API ImageSpec getImageSpec(const std::filesystem::path& path);

/// What a reader sees of a file just written: readBackImageFile's answer.
struct ReadBack {
    int channels = 0;        ///< Channels of the first subimage.
    std::string format;      ///< Its pixel type by OpenImageIO's name ("uint8", "half", ...).
    std::string colorSpace;  ///< Its "oiio:ColorSpace", "" when it has none.
    std::string error;       ///< "" when the file read back; else why not, as a log line says it.
};

/// Checks cheaply that a file just written reads back whole: opens it, takes the header of its
/// first subimage and reads the last pixels of its smallest MIP level as floats (the last row of
/// tiles, which is all of any texture's smallest level, or the last 16 scanlines). A file cut
/// short fails there, also when its header is whole; so does a TIFF whose MIP levels stop short
/// of 1x1, as a cut between two levels leaves one. On failure `error` is
/// "Couldn't read back {file}:\n{OpenImageIO's text}" (or the step that failed when OpenImageIO
/// gives no text), with the fields read so far filled in (0 and "" when the file doesn't open).
/// Logs nothing, throws nothing of its own and leaves no OpenImageIO error pending: reporting is
/// the caller's.
VOREL_USD_IMAGE_PROCESSING_API ReadBack readBackImageFile(const std::filesystem::path& path);

/// A new image holding a copy of `width` x `height` x `numChannels` values of type `format`,
/// packed channel by channel, pixel by pixel, row by row from the top. `data` stays the
/// caller's and may be freed on return. On failure returns the empty Image and logs at err
/// "Couldn't create image:\n{OpenImageIO's text}". The new image has no colour-space tag.
VOREL_USD_IMAGE_PROCESSING_API Image createImageFromData(void* data, int width, int height,
                                                         int numChannels, OIIO::TypeDesc format);

/// @}

// ---------------------------------------------------------------------------------------------
// Asset images through Hio and the Hgi format vocabulary
// ---------------------------------------------------------------------------------------------

/// @defgroup assets Asset images through Hio and the Hgi format vocabulary
/// @{

/// Loads the image that a USD scene names by `assetPath` through OpenUSD's Hio image layer
/// (not OpenImageIO's readers), in the format the file itself delivers, and tags it "sRGB" when
/// Hio reports that colour space; any other image has no tag ("linear" is never set). The
/// samples are always UINT8 with one channel per byte of a Hio pixel: an 8-bit RGBA file gives
/// 4 channels, a float RGBA file 16 channels holding each pixel's raw bytes. On failure returns
/// the empty Image and logs at err "Failed to open image {assetPath}" (Hio can't open it) or
/// "Reading of image {assetPath} failed" (Hio can't decode it).
VOREL_USD_IMAGE_PROCESSING_API Image getImageFromAssetPath(const std::string& assetPath);

/// Channels of an HgiFormat pixel: 1 to 4 for HgiFormatUNorm8 (0) to HgiFormatUNorm8Vec4srgb
/// (26). Any other value (HgiFormatInvalid, block-compressed, packed and depth formats) returns 0
/// and logs at err "Unsupported hgiFormat"; test this count before trusting the type below.
VOREL_USD_IMAGE_PROCESSING_API int getNumChannelsFromHgiFormat(PXR_NS::HgiFormat format);

/// The scalar OpenImageIO type of one channel of an HgiFormat pixel (normalised formats give
/// plain integer types; sRGB doesn't show). For values outside 0..26 returns FLOAT, which can't
/// be told from a valid answer, and logs at err "Unsupported hgiFormat".
VOREL_USD_IMAGE_PROCESSING_API OIIO::TypeDesc getOIIOTypeDescFromHgiFormat(
    PXR_NS::HgiFormat format);

/// @}

// ---------------------------------------------------------------------------------------------
// Supported extensions
// ---------------------------------------------------------------------------------------------

/// @defgroup extensions Supported extensions
/// @{

/// Every file extension that OpenImageIO knows, read from its "extension_list" attribute at each
/// call: bare (no dot) and in OpenImageIO's case, grouped by format name in ascending byte order
/// and in OpenImageIO's order within a format. An extension that two formats share appears
/// twice. To match a path, drop the dot of its extension and settle the case yourself. Never
/// logs; an empty vector when OpenImageIO gives no list.
VOREL_USD_IMAGE_PROCESSING_API std::vector<std::string> getSupportedImageExtensions();

/// @}

// ---------------------------------------------------------------------------------------------
// Writing: the colour policy by extension and the three writers
// ---------------------------------------------------------------------------------------------

/// @defgroup writing Writing: the colour policy by extension and the three writers
/// @{

/// Brings `image` into the colour space that the extension of `path` calls for: ".png", ".jpg",
/// ".jpeg", ".bmp", ".gif", ".webp" to "sRGB"; ".exr", ".tif", ".tiff" to "linear" (the extension
/// in any case; only the last one counts; nothing is read or written on disk). Returns true when
/// a conversion ran and its result replaced `image`, false when `image` was left as it was.
/// Logs a warn and returns false when the image has no colour-space tag. A conversion logs
/// "Converted image from '{from}' to '{to}' for extension '{ext}'" at debug (plus a warn for every
/// conversion to "linear"); no conversion logs "No color conversion needed for extension '{ext}'"
/// at debug. True means a conversion ran, not that it worked: if colorConvert fails (it logs at
/// err), `image` becomes the empty Image.
VOREL_USD_IMAGE_PROCESSING_API bool colorConvertByFormat(Image& image,
                                                         const std::filesystem::path& path);

/// The colour space that colorConvertByFormat brings an image into for the last extension of
/// `path` (any case): "sRGB" for ".png", ".jpg", ".jpeg", ".bmp", ".gif", ".webp"; "linear" for
/// ".exr", ".tif", ".tiff"; "" for any other, which converts nothing. Logs nothing.
VOREL_USD_IMAGE_PROCESSING_API std::string getColorSpaceForExtension(
    const std::filesystem::path& path);

/// Writes `image` to `path`; the format follows from the file name. Never converts colour: on
/// ".jpg", ".jpeg", ".bmp", ".gif", ".webp" a tag other than "sRGB", and on ".exr" a tag other
/// than "linear", is logged at err and the file is written all the same (a missing tag is a
/// warn); call colorConvertByFormat first. `compressionLevel` is handed to the PNG writer for
/// ".png" when it is 0 or more and ignored otherwise (-1 keeps the writer's default). `image` is
/// not changed. Returns false and logs at err "Couldn't write image {file}:\n{OpenImageIO's text}"
/// when no writer claims the extension or opening or writing fails (the text may be empty; what
/// a failed write left on disk stays). On success logs the time taken at debug.
VOREL_USD_IMAGE_PROCESSING_API bool writeImage(const Image& image,
                                               const std::filesystem::path& path,
                                               int compressionLevel = -1);

/// Writes `images` as the subimages of one file, in order, subimage i named `layerNames[i]`
/// ("oiio:subimagename"); with an ".exr" path a multi-part OpenEXR file, whose parts must all
/// have the same size (channels and pixel types may differ). Colour tags are not looked at; the
/// images are not changed. Returns false and logs one err line when the lists differ in length
/// (no file is touched), when no writer claims the extension ("Couldn't write image
/// {file}:\n{text}"), or when the writer refuses: "fail to open {text}" (all subimages at once,
/// also empty lists for a writer that can't take 0 subimages), "fail to open for subimage{text}"
/// (a further subimage), "fail to write {text}". Subimages written before a failure stay.
VOREL_USD_IMAGE_PROCESSING_API bool writeMultiPartEXR(const std::vector<std::string>& layerNames,
                                                      const std::vector<Image>& images,
                                                      const std::filesystem::path& path);

/// Writes `frames` as an animation (with a ".gif" path, an animated GIF) at `framesPerSecond`,
/// each frame as 8-bit untiled data; the frames themselves are not changed. For GIF every frame
/// must have the first frame's size. An empty list writes nothing and returns true. When no
/// writer claims the extension, returns false and logs at err "Couldn't write image
/// {file}:\n{text}"; that is the only message. Any other failure (a frame the writer refuses,
/// such as a GIF frame of another size or channel count, or a second frame for a single-image
/// format) returns false with nothing logged: the writer's message is left pending on that
/// frame's `buffer` (read it with `frames[i].buffer.geterror()`), and earlier frames stay written.
VOREL_USD_IMAGE_PROCESSING_API bool writeAnimatedGif(const std::vector<Image>& frames,
                                                     const std::filesystem::path& path,
                                                     float framesPerSecond);

/// @}

// ---------------------------------------------------------------------------------------------
// Renderer-ready textures
// ---------------------------------------------------------------------------------------------

/// @defgroup textures Renderer-ready textures
/// @{

/// What a texture is made for: a plain 2D texture, or a latitude-longitude environment map.
enum class TextureMode : int {
    Texture = 0,             ///< maketx's default
    LatLongEnvironment = 1,  ///< maketx --envlatl
};

/// What makeTexture does about NaN and infinite samples in the source.
enum class NanHandling : int {
    Leave = 0,     ///< written as they are (maketx's default)
    Fail = 1,      ///< makeTexture fails (maketx --checknan)
    FixBlack = 2,  ///< replaced by 0 (maketx --fixnan black)
    FixBox3 = 3,   ///< replaced by the mean of their finite 3x3 neighbours (maketx --fixnan box3)
};

/// How makeTexture builds a texture. Every default is that of OpenImageIO's maketx, so the
/// default options make what `maketx IN -o OUT` makes of the same pixels.
struct TextureOptions {
    TextureMode mode = TextureMode::Texture;  ///< 2D texture or lat-long environment map
    int tileWidth = 64;                       ///< pixels per tile row (maketx --tile W H)
    int tileHeight = 64;                      ///< tile rows
    /// The filter that makes each MIP level from the one above ("box", "triangle", "lanczos3",
    /// ... as maketx --filter).
    std::string mipFilter = "box";
    /// The texture's pixel type: "" for the image's own, or "uint8", "sint8", "uint16",
    /// "sint16", "half", "float" (maketx -d).
    std::string dataFormat;
    std::string compression = "zip";   ///< the writer's compression (maketx --compression)
    bool constantColorDetect = false;  ///< a one-colour image becomes one tile
    bool opaqueDetect = false;         ///< an alpha of 1.0 everywhere is dropped
    bool monochromeDetect = false;     ///< R == G == B everywhere becomes one channel
    NanHandling nanHandling = NanHandling::Leave;  ///< see NanHandling
    /// Compresses the range of HDR samples around the MIP resampling and clamps negative
    /// samples, so that filters with negative lobes ring less (maketx --hicomp).
    bool highlightCompensation = false;
};

/// Writes `image` to `path` as a tiled, MIP-mapped texture, as maketx does, from the image's own
/// pixels (no file is read). The format follows the extension: ".tx", ".tif", ".tiff" TIFF,
/// ".exr" OpenEXR. The colour is not converted (call colorConvertByFormat first if the texture's
/// colour space should follow its extension); the colour-space tag and the image's other
/// attributes go into the file as far as its format holds them: a TIFF keeps "sRGB" only, an
/// OpenEXR reads back as "Linear" whatever it was. As maketx's textures, it carries the
/// fingerprint of its pixels ("oiio:SHA-1") by which a texture cache shares duplicates, and a
/// "Software" that names OpenImageIO. The attributes of a CMYK source file that
/// removeCmykAttributes removes are left out (the texture of a CMYK JPEG or TIFF is an RGB file).
/// The texture is written under a temporary name and renamed when complete. `image` is not
/// changed. Returns false and logs at err "Couldn't make texture {file}:\n{OpenImageIO's text}"
/// when OpenImageIO refuses (an unknown filter, data format or extension, a NaN with
/// NanHandling::Fail, a file that can't be written). On success logs the time taken at debug.
VOREL_USD_IMAGE_PROCESSING_API bool makeTexture(const Image& image,
                                                const std::filesystem::path& path,
                                                const TextureOptions& options = {});

/// @}

// ---------------------------------------------------------------------------------------------
// Metadata
// ---------------------------------------------------------------------------------------------

/// @defgroup metadata Metadata
/// @{

/// One metadata value. The index of the alternative is its kind: 0 string, 1 int, 2 float,
/// 3 int array, 4 float array.
using MetadataValue = std::variant<std::string, int, float, std::vector<int>, std::vector<float>>;

/// Attribute name, exactly as OpenImageIO holds it (prefix included, e.g. "oiio:ColorSpace"), to
/// its value.
using MetadataMap = std::unordered_map<std::string, MetadataValue>;

/// One entry for each attribute of the image's OpenImageIO ImageSpec. Fixed fields such as the
/// size or the channel names are not attributes, and `properties` is not metadata. Strings (a
/// string array as one rendered string) give std::string; INT32 and FLOAT attributes with an
/// array length give the vectors; other INT32 and FLOAT attributes give int and float, by
/// OpenImageIO's get_int and get_float. Any other type (double, half, 8-, 16- and 64-bit integers,
/// UINT32, ...) still gets its entry, with an empty string, and logs at warn
/// "Unsupported OIIO metadata value type" once per such attribute. Never fails; the empty Image
/// gives an empty map.
VOREL_USD_IMAGE_PROCESSING_API MetadataMap getMetadataFromImage(const Image& image);

/// Writes every entry as an attribute of the image's ImageSpec, replacing an attribute of the
/// same name whatever its type; "oiio:ColorSpace" thus sets the colour-space tag, without the
/// warnings of setColorSpace. Only std::string, int and float are written. At the first other
/// value (a vector, or a variant without a value) logs at err "Unsupported metadata value type"
/// and returns false: the entries before it in the map's iteration order are written, the
/// later ones are not tried. True when every entry was written, also for an empty map.
VOREL_USD_IMAGE_PROCESSING_API bool addMetadataToImage(Image& image, const MetadataMap& metadata);

/// What an embedded ICC profile says of itself.
struct IccProfileInfo {
    std::string colorSpace;   ///< The header's data colour space: "RGB", "CMYK", "GRAY", "Lab", ...
    std::string description;  ///< The text of its 'desc' tag, in UTF-8.
};

/// Reads the image's ICC profile (the attribute "ICCProfile", an array of bytes, as OpenImageIO's
/// readers store a file's profile): the data colour space of its header without trailing blanks,
/// and the description of an ICC v2 'desc' or v4 'mluc' tag (its first record) converted to UTF-8,
/// trailing NULs dropped; a byte outside ASCII or a broken UTF-16 unit becomes U+FFFD. Both are ""
/// without a profile or with one shorter than its 128-byte header; `description` is "" when there
/// is no 'desc' tag or it doesn't lie whole inside the profile. The bytes come from any file:
/// nothing is read outside them. Never fails, never logs.
VOREL_USD_IMAGE_PROCESSING_API IccProfileInfo getIccProfileInfo(const Image& image);

/// Removes what a CMYK file (JPEG or TIFF) leaves among the attributes of the image read from it,
/// which is RGB in memory: "tiff:ColorSpace" "CMYK", "tiff:PhotometricInterpretation" 5
/// (separated), "jpeg:ColorSpace" "CMYK" and an "ICCProfile" whose colour space is "CMYK" with
/// the "ICCProfile:..." fields OpenImageIO decodes from it; each only with that value, so an RGB
/// profile stays. Written again, they would make OpenImageIO's TIFF writer encode a CMYK file (a
/// tiled one of which OpenImageIO 2.4.7 can't read back) and libpng refuse the profile. Touches
/// no pixel and no other attribute ("oiio:ColorSpace" stays). Returns true when it removed any. Never logs. makeTexture
/// leaves these attributes out of its textures by itself.
VOREL_USD_IMAGE_PROCESSING_API bool removeCmykAttributes(Image& image);

/// @}

// ---------------------------------------------------------------------------------------------
// Geometric operations
// ---------------------------------------------------------------------------------------------

/// @defgroup geometry Geometric operations
/// @{

// Every value operation below returns a new Image with a copy of its (first) source's
// `properties`; `roi` is handed to OpenImageIO as given (a default ROI means the whole image).
// On failure it returns the empty Image and logs one err line ending in OpenImageIO's text.

/// The region `roi` of `image`, with its origin moved to (0, 0). Failure is logged as
/// "Crop operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image cut(const Image& image, const OIIO::ROI& roi);

/// `image` scaled into `roi` with its aspect ratio kept, letterboxed into the rest of the region,
/// with OpenImageIO's default filter. Failure: "Fit operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image fit(const Image& image, const OIIO::ROI& roi);

/// `image` resampled to the size of `roi` with OpenImageIO's default filter. Failure (such as a
/// 0 x 0 region): "Resize operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image resize(const Image& image, const OIIO::ROI& roi);

/// `image` rotated by `angle` radians about the centre of its display window. With
/// `recomputeRoi` the result's extent grows to hold the whole rotated image; without it, it
/// keeps the source's. Failure: "Rotate operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image rotate(const Image& image, float angle, bool recomputeRoi);

/// Writes the region `roi` of `src` (all of it for the default ROI) into `dst` at column `x`,
/// row `y`, in place; an empty `dst` is allocated. `dst.properties` are left alone. Returns
/// false on failure, with `dst` as OpenImageIO left it, and logs at err
/// "Paste operation failed:\n{OpenImageIO's text}". On OpenImageIO 2.4.7 a region that does not
/// start at (0, 0) lands further by that start: pass regions starting at (0, 0).
VOREL_USD_IMAGE_PROCESSING_API bool paste(Image& dst, int x, int y, const Image& src,
                                          const OIIO::ROI& roi = OIIO::ROI());

/// @}

// ---------------------------------------------------------------------------------------------
// Compositing and alpha
// ---------------------------------------------------------------------------------------------

/// @defgroup compositing Compositing and alpha
/// @{

/// `foreground` composited over `background` within `roi` (both need an alpha channel). The
/// result carries `foreground`'s properties. Failure: the empty Image and, at err,
/// "Over compositing failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image over(const Image& foreground, const Image& background,
                                          const OIIO::ROI& roi = OIIO::ROI());

/// A new image covering `roi` (extent and channels) filled with `color`, which must hold one
/// value per channel of `roi`. No colour-space tag, no properties. Failure (such as the default
/// ROI): the empty Image and, at err, "Create solid operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image createSolidColorImage(const std::vector<float>& color,
                                                           const OIIO::ROI& roi);

/// Flattens an RGBA `image` over a solid `backgroundColor` (four values, R, G, B, A) on the
/// region from pixel (0, 0) of its size, channels 0 to 4. `image` is replaced by the composite;
/// when that fails, `image` becomes the empty Image (properties included) and the err lines of
/// createSolidColorImage and over are the only report.
VOREL_USD_IMAGE_PROCESSING_API void compositeOverBackgroundColor(
    Image& image, const std::vector<float>& backgroundColor);

/// `image` premultiplied, unpremultiplied or repremultiplied by its alpha, as `mode` says. A
/// `mode` other than the three enumerators logs "Invalid PreMultMode" at err; an OpenImageIO
/// failure logs "Premultiply operation failed:\n{OpenImageIO's text}"; both give the empty Image.
VOREL_USD_IMAGE_PROCESSING_API Image preMultiply(const Image& image, PreMultMode mode);

/// Gives a three-channel image without alpha a fourth channel "A" holding `alpha`, in place.
/// Returns false, and leaves `image` as it was, silently when the image already has an alpha
/// channel, and with a warn line "Couldn't add alpha channel to image with {n} channels" when it
/// doesn't have exactly 3 channels. An OpenImageIO failure logs at err
/// "Adding of alpha channel failed:\n{OpenImageIO's text}" and returns false.
VOREL_USD_IMAGE_PROCESSING_API bool addAlphaChannel(Image& image, float alpha);

/// @}

// ---------------------------------------------------------------------------------------------
// Colour conversion
// ---------------------------------------------------------------------------------------------

/// @defgroup colour Colour conversion
/// @{

/// Converts the pixels from `fromSpace` to `toSpace` by name with OpenImageIO's colour
/// management (alpha is unassociated for the conversion and restored). The names are not
/// compared with the image's tag: `fromSpace` is what the pixels are taken to be. On failure
/// (such as an unknown name) returns the empty Image and logs at err
/// "colorConvert operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image colorConvert(const Image& image, const std::string& fromSpace,
                                                  const std::string& toSpace);

/// @}

// ---------------------------------------------------------------------------------------------
// Channel operations
// ---------------------------------------------------------------------------------------------

/// @defgroup channels Channel operations
/// @{

/// A new image of `channelCount` channels; channel i is `image`'s channel `channelOrder[i]`
/// (a negative index gives 0). Failure: the empty Image and, at err,
/// "Shuffle operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image shuffle(const Image& image, int channelCount,
                                             OIIO::span<const int> channelOrder);

/// The channels of `first` followed by those of `second`, over `roi` (the union of both for the
/// default ROI); carries `first`'s properties only. Failure: the empty Image and, at err,
/// "Channel append operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image channelAppend(const Image& first, const Image& second,
                                                   const OIIO::ROI& roi = OIIO::ROI());

/// 1 - v for every sample within `roi`, alpha included for the default ROI. Failure: the empty
/// Image and, at err, "Invert operation failed:\n{OpenImageIO's text}".
VOREL_USD_IMAGE_PROCESSING_API Image invert(const Image& image, const OIIO::ROI& roi = OIIO::ROI());

/// `image` with the first channel named exactly `channelName` (case-sensitive) inverted and
/// every other channel as it was. Returns the empty Image and logs at err
/// "Given channel '{channelName}' doesn't exist" when there is no such channel, or
/// "Invert operation failed:\n{text}" / "Past operation failed:\n{text}" when OpenImageIO fails.
VOREL_USD_IMAGE_PROCESSING_API Image invertChannel(const Image& image, std::string channelName);

/// @}

// ---------------------------------------------------------------------------------------------
// Normalisation
// ---------------------------------------------------------------------------------------------

/// @defgroup normalisation Normalisation
/// @{

/// Remaps the channels named in `channelNames` ("R", "G", "B" when empty) linearly, with one
/// range over all of them, so that their smallest sample becomes `targetMin` and their largest
/// `targetMax`; other channels are carried across. Nothing is clamped, and if all chosen samples
/// are equal they become NaN. Samples are read on OpenImageIO's float scale (integer types as
/// 0..1), except scalar UINT32 images, whose raw integers are used; results are stored as
/// ImageBuf::setpixel converts floats to the (unchanged) pixel type. Logs the range at debug.
/// Returns the empty Image and logs at err
/// "Normalize fails: Channel index out of range:\n{name}, present channels : [{names}]" when a
/// name isn't a channel of `image`.
VOREL_USD_IMAGE_PROCESSING_API Image normalize(const Image& image, float targetMin, float targetMax,
                                               const std::vector<std::string>& channelNames = {});

/// @}

// ---------------------------------------------------------------------------------------------
// ID images
// ---------------------------------------------------------------------------------------------

/// @defgroup id_images ID images
/// @{

// An ID image has the pixel type scalar INT32: each sample is an identifier, and a negative
// sample marks a pixel without one. Both functions change the image in place, in its own pixel
// memory, and leave `properties` alone.

/// Turns an ID image of any number of channels into scalar UINT32 samples: a negative ID
/// becomes 0 and ID n becomes n + 1 (2147483647 becomes 2147483648). Returns true once done.
/// Returns false and leaves the image as it was when the pixel type isn't scalar INT32, logging
/// at err "Can't convert non-ID image: {pixel type} format" (also for an image converted
/// before, so IDs are never shifted twice), or when its pixels aren't in local memory (such as
/// a deep image), logging at err "Can't modify image with non-local pixels".
VOREL_USD_IMAGE_PROCESSING_API bool convertIdImageToUint(Image& image);

/// Replaces a one-channel ID image by a 4-channel UINT8 mask: R, G, B and A are 255 where the ID
/// is 0 or more and 0 where it's negative, then the mask is dilated by OpenImageIO's dilate with
/// a 2 x 2 window, which also sets the right, lower and lower-right neighbours of every set
/// pixel. The old attributes, the colour-space tag among them, are gone and the origin is 0, 0.
/// Logs "idImageToMask" at debug on every call. An image that isn't one channel of scalar INT32
/// is left as it was with the err line "Unexpected format for idImage"; one whose pixels aren't
/// in local memory with "Can't modify image with non-local pixels".
VOREL_USD_IMAGE_PROCESSING_API void idImageToMask(Image& image);

/// @}

}  // namespace vorel::usd::image_processing
