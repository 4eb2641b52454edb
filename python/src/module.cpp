// The Python module vorel_usd_image_processing: the library's functions and types under their C++
// names, with Python's types at the edges (str or os.PathLike for paths, lists, dicts, NumPy
// arrays for pixels). Calls release the GIL while the library works; log lines go to Python's
// logging.

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <docstrings.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>
#include <pybind11/stl_bind.h>

#include <vorel/usd/image_processing/image_processing.h>

#include "pixel_arrays.h"
#include "python_assets.h"
#include "python_logging.h"
#include "without_gil.h"

// Image.properties is the image's own map, changed in place from Python, not a copy.
PYBIND11_MAKE_OPAQUE(std::map<std::string, std::string>)

namespace ip = vorel::usd::image_processing;
namespace ipy = vorel::usd::image_processing::python;
namespace py = pybind11;
using namespace py::literals;

namespace {

namespace docs = vorel::python::docs;

/// A binding's own remarks (what Python gives and raises) before the C++ reference's text.
std::string withNote(const char* library, const char* python) {
    return std::string(python) + "\n\n" + library;
}

using Properties = std::map<std::string, std::string>;

/// ROI's default in the signatures: the whole image.
const OIIO::ROI kWholeImage;
/// The channel end of a defined ROI when none is given: every channel.
constexpr int kAllChannels = OIIO::ROI(0, 1, 0, 1).chend;

std::string roiRepr(const OIIO::ROI& roi) {
    if (!roi.defined()) {
        return "ROI()";
    }
    return "ROI(" + std::to_string(roi.xbegin) + ", " + std::to_string(roi.xend) + ", " +
           std::to_string(roi.ybegin) + ", " + std::to_string(roi.yend) + ", " +
           std::to_string(roi.chbegin) + ", " + std::to_string(roi.chend) + ")";
}

std::string imageRepr(const ip::Image& image) {
    if (!image.buffer.initialized()) {
        return "<Image empty>";
    }
    const OIIO::ImageSpec& spec = image.buffer.spec();
    return "<Image " + std::to_string(spec.width) + "x" + std::to_string(spec.height) + ", " +
           std::to_string(spec.nchannels) + " channels of " + spec.format.c_str() + ">";
}

std::vector<std::string> channelNames(const ip::Image& image) {
    return image.buffer.spec().channelnames;
}

void bindImage(py::module_& m) {
    py::bind_map<Properties>(m, "Properties",
                             "The str to str map that travels with an Image (a dict-like view).");

    py::class_<ip::Image>(m, "Image", R"doc(
An image: OpenImageIO's pixels, size, channels, pixel type and attributes, plus `properties`, a
str to str map that travels with it. Image() is the empty Image, the failure value of every
function returning an Image; it is falsy (bool(image) is buffer.initialized()).)doc")
        .def(py::init<>())
        .def("__bool__", [](const ip::Image& image) { return image.buffer.initialized(); })
        .def("__copy__", [](const ip::Image& image) { return ip::Image(image); })
        .def(
            "__deepcopy__", [](const ip::Image& image, py::dict) { return ip::Image(image); },
            "memo"_a)
        .def("__repr__", &imageRepr)
        .def_property(
            "properties", [](ip::Image& image) -> Properties& { return image.properties; },
            [](ip::Image& image, const py::dict& entries) {
                Properties replacement;
                for (const auto& [key, value] : entries) {
                    replacement[key.cast<std::string>()] = value.cast<std::string>();
                }
                image.properties = std::move(replacement);
            },
            py::return_value_policy::reference_internal,
            "The image's own str to str map; assign a dict to replace it.")
        .def_property_readonly("width",
                               [](const ip::Image& image) { return image.buffer.spec().width; })
        .def_property_readonly("height",
                               [](const ip::Image& image) { return image.buffer.spec().height; })
        .def_property_readonly("nchannels",
                               [](const ip::Image& image) { return image.buffer.spec().nchannels; })
        .def_property_readonly("channel_names", &channelNames)
        .def_property_readonly(
            "dtype",
            [](const ip::Image& image) { return ipy::dtypeOf(image.buffer.spec().format); },
            "The NumPy dtype of the pixel type.")
        .def(
            "geterror",
            [](const ip::Image& image, bool clear) { return image.buffer.geterror(clear); },
            "clear"_a = true,
            "The error pending on the image's buffer, such as a frame refused by "
            "writeAnimatedGif.")
        .def("pixels", &ipy::pixelArray, R"doc(
The pixels as a NumPy array of shape (height, width, channels) in the image's own pixel type,
sharing the image's memory: no copy is made, writes go to the image, and the array keeps the
image alive. While such arrays exist, operations that replace the image's pixels in place
(addAlphaChannel, compositeOverBackgroundColor, colorConvertByFormat, idImageToMask) raise
ValueError. Raises ValueError for an image without pixels.)doc")
        .def_static("from_array", &ipy::imageFromArray, "array"_a, R"doc(
A new Image holding a copy of a C-contiguous array of shape (height, width) or (height, width,
channels) of uint8, int8, uint16, int16, uint32, int32, float16, float32 or float64, made by
createImageFromData. Raises TypeError for another dtype and ValueError for another shape, an
empty or a non-contiguous array.)doc");

    py::class_<ip::ImageSpec>(m, "ImageSpec",
                              "Width and height of an image file; (0, 0) on failure.")
        .def(py::init([](int width, int height) {
                 return ip::ImageSpec{width, height};
             }),
             "width"_a = 0, "height"_a = 0)
        .def_readwrite("width", &ip::ImageSpec::width)
        .def_readwrite("height", &ip::ImageSpec::height)
        .def("__eq__",
             [](const ip::ImageSpec& a, const ip::ImageSpec& b) {
                 return a.width == b.width && a.height == b.height;
             })
        .def("__repr__", [](const ip::ImageSpec& spec) {
            return "ImageSpec(" + std::to_string(spec.width) + ", " + std::to_string(spec.height) +
                   ")";
        });

    py::enum_<ip::PreMultMode>(m, "PreMultMode", "What preMultiply does with alpha.")
        .value("Premult", ip::PreMultMode::Premult)
        .value("Unpremult", ip::PreMultMode::Unpremult)
        .value("Repremult", ip::PreMultMode::Repremult);

    py::class_<OIIO::ROI>(m, "ROI", R"doc(
A region: columns xbegin..xend-1, rows ybegin..yend-1, channels chbegin..chend-1. ROI() is the
whole image.)doc")
        .def(py::init<>())
        .def(py::init([](int xbegin, int xend, int ybegin, int yend, int chbegin, int chend) {
                 return OIIO::ROI(xbegin, xend, ybegin, yend, 0, 1, chbegin, chend);
             }),
             "xbegin"_a, "xend"_a, "ybegin"_a, "yend"_a, "chbegin"_a = 0, "chend"_a = kAllChannels)
        .def_readwrite("xbegin", &OIIO::ROI::xbegin)
        .def_readwrite("xend", &OIIO::ROI::xend)
        .def_readwrite("ybegin", &OIIO::ROI::ybegin)
        .def_readwrite("yend", &OIIO::ROI::yend)
        .def_readwrite("chbegin", &OIIO::ROI::chbegin)
        .def_readwrite("chend", &OIIO::ROI::chend)
        .def_property_readonly("defined", &OIIO::ROI::defined, "False for the whole image.")
        .def("__eq__", [](const OIIO::ROI& a, const OIIO::ROI& b) { return a == b; })
        .def("__repr__", &roiRepr);
}

void bindTagsAndPixels(py::module_& m) {
    m.def("getColorSpace", &ip::getColorSpace, "image"_a, docs::getColorSpace);
    m.def("setColorSpace", &ip::setColorSpace, "image"_a, "colorSpace"_a, docs::setColorSpace);
    m.def("getNumChannels", &ip::getNumChannels, "image"_a, docs::getNumChannels);
    m.def("getPixelValue", &ip::getPixelValue, "image"_a, "x"_a, "y"_a, "z"_a, "channel"_a,
          docs::getPixelValue);
    m.def("getPixelUIntValue", &ip::getPixelUIntValue, "image"_a, "x"_a, "y"_a, "z"_a, "channel"_a,
          docs::getPixelUIntValue);
}

void bindReading(py::module_& m) {
    m.def("readImage", ipy::withoutGil(&ip::readImage), "path"_a, docs::readImage);
    m.def("getImageSpec", ipy::withoutGil(&ip::getImageSpec), "path"_a, docs::getImageSpec);
    py::class_<ip::ReadBack>(m, "ReadBack", docs::ReadBack)
        .def(py::init<>())
        .def_readonly("channels", &ip::ReadBack::channels)
        .def_readonly("format", &ip::ReadBack::format)
        .def_readonly("colorSpace", &ip::ReadBack::colorSpace)
        .def_readonly("error", &ip::ReadBack::error);
    m.def("readBackImageFile", ipy::withoutGil(&ip::readBackImageFile), "path"_a,
          docs::readBackImageFile);
    m.def(
        "createImageFromData",
        [](const py::buffer& data, int width, int height, int numChannels,
           const py::object& format) {
            const OIIO::TypeDesc type = ipy::typeDescOf(py::dtype::from_args(format));
            const py::buffer_info info = data.request();
            ipy::requireEnoughData(info, width, height, numChannels, type);
            return ipy::callWithoutGil([&] {
                return ip::createImageFromData(info.ptr, width, height, numChannels, type);
            });
        },
        "data"_a, "width"_a, "height"_a, "numChannels"_a, "format"_a,
        withNote(docs::createImageFromData,
                 "A new image holding a copy of C-ordered samples of NumPy dtype `format` from any "
                 "buffer "
                 "(bytes, bytearray, array); the empty Image on failure. Raises ValueError for too "
                 "little "
                 "data.")
            .c_str());
    m.def("getImageFromAssetPath", ipy::withoutGil(&ip::getImageFromAssetPath), "assetPath"_a,
          docs::getImageFromAssetPath);
    m.def(
        "getNumChannelsFromHgiFormat",
        [](int format) {
            return ip::getNumChannelsFromHgiFormat(static_cast<PXR_NS::HgiFormat>(format));
        },
        "format"_a,
        withNote(docs::getNumChannelsFromHgiFormat,
                 "Channels of an HgiFormat value (an int); 0 for unsupported formats.")
            .c_str());
    m.def(
        "getOIIOTypeDescFromHgiFormat",
        [](int format) {
            return ipy::dtypeOf(
                ip::getOIIOTypeDescFromHgiFormat(static_cast<PXR_NS::HgiFormat>(format)));
        },
        "format"_a,
        withNote(docs::getOIIOTypeDescFromHgiFormat,
                 "The NumPy dtype of one channel of an HgiFormat value (an int).")
            .c_str());
    m.def("getSupportedImageExtensions", &ip::getSupportedImageExtensions,
          docs::getSupportedImageExtensions);
    // What a C++ host does with OIIO::attribute: the limits that the library holds sizes to, and
    // "try_all_readers", for files from anyone.
    m.def(
        "setOpenImageIOAttribute",
        [](const std::string& name, int value) { return OIIO::attribute(name, value); }, "name"_a,
        "value"_a,
        "Sets one of OpenImageIO's global int attributes (\"limits:imagesize_MB\", "
        "\"limits:channels\", \"try_all_readers\", ...) for this process; False for an unknown "
        "name.");
}

void bindWriting(py::module_& m) {
    m.def(
        "colorConvertByFormat",
        [](ip::Image& image, const std::filesystem::path& path) {
            ipy::requireNoPixelArrays(image, "colorConvertByFormat");
            return ipy::callWithoutGil([&] { return ip::colorConvertByFormat(image, path); });
        },
        "image"_a, "path"_a,
        withNote(docs::colorConvertByFormat,
                 "Raises ValueError while an array from pixels() shares the "
                 "image's memory.")
            .c_str());
    m.def("getColorSpaceForExtension", &ip::getColorSpaceForExtension, "path"_a,
          docs::getColorSpaceForExtension);
    m.def("writeImage", ipy::withoutGil(&ip::writeImage), "image"_a, "path"_a,
          "compressionLevel"_a = -1, docs::writeImage);
    m.def("writeMultiPartEXR", ipy::withoutGil(&ip::writeMultiPartEXR), "layerNames"_a, "images"_a,
          "path"_a, docs::writeMultiPartEXR);
    m.def(
        "writeAnimatedGif",
        [](const std::vector<ip::Image*>& frames, const std::filesystem::path& path,
           float framesPerSecond) {
            std::vector<ip::Image> copies;
            copies.reserve(frames.size());
            for (const ip::Image* frame : frames) {
                copies.push_back(*frame);
            }
            const bool written = ipy::callWithoutGil(
                [&] { return ip::writeAnimatedGif(copies, path, framesPerSecond); });
            // A refused frame's reason belongs on the caller's frame, where geterror() finds it.
            for (std::size_t i = 0; i < copies.size(); ++i) {
                if (copies[i].buffer.has_error()) {
                    frames[i]->buffer.error(copies[i].buffer.geterror(true));
                }
            }
            return written;
        },
        "frames"_a, "path"_a, "framesPerSecond"_a, docs::writeAnimatedGif);
}

void bindTextures(py::module_& m) {
    py::enum_<ip::TextureMode>(m, "TextureMode", docs::TextureMode)
        .value("Texture", ip::TextureMode::Texture)
        .value("LatLongEnvironment", ip::TextureMode::LatLongEnvironment);
    py::enum_<ip::NanHandling>(m, "NanHandling", docs::NanHandling)
        .value("Leave", ip::NanHandling::Leave)
        .value("Fail", ip::NanHandling::Fail)
        .value("FixBlack", ip::NanHandling::FixBlack)
        .value("FixBox3", ip::NanHandling::FixBox3);
    const ip::TextureOptions defaults;
    py::class_<ip::TextureOptions>(m, "TextureOptions", docs::TextureOptions)
        .def(py::init([](ip::TextureMode mode, int tileWidth, int tileHeight, std::string mipFilter,
                         std::string dataFormat, std::string compression, bool constantColorDetect,
                         bool opaqueDetect, bool monochromeDetect, ip::NanHandling nanHandling,
                         bool highlightCompensation) {
                 return ip::TextureOptions{mode,
                                           tileWidth,
                                           tileHeight,
                                           std::move(mipFilter),
                                           std::move(dataFormat),
                                           std::move(compression),
                                           constantColorDetect,
                                           opaqueDetect,
                                           monochromeDetect,
                                           nanHandling,
                                           highlightCompensation};
             }),
             py::kw_only(), "mode"_a = defaults.mode, "tileWidth"_a = defaults.tileWidth,
             "tileHeight"_a = defaults.tileHeight, "mipFilter"_a = defaults.mipFilter,
             "dataFormat"_a = defaults.dataFormat, "compression"_a = defaults.compression,
             "constantColorDetect"_a = defaults.constantColorDetect,
             "opaqueDetect"_a = defaults.opaqueDetect,
             "monochromeDetect"_a = defaults.monochromeDetect,
             "nanHandling"_a = defaults.nanHandling,
             "highlightCompensation"_a = defaults.highlightCompensation)
        .def_readwrite("mode", &ip::TextureOptions::mode)
        .def_readwrite("tileWidth", &ip::TextureOptions::tileWidth)
        .def_readwrite("tileHeight", &ip::TextureOptions::tileHeight)
        .def_readwrite("mipFilter", &ip::TextureOptions::mipFilter)
        .def_readwrite("dataFormat", &ip::TextureOptions::dataFormat)
        .def_readwrite("compression", &ip::TextureOptions::compression)
        .def_readwrite("constantColorDetect", &ip::TextureOptions::constantColorDetect)
        .def_readwrite("opaqueDetect", &ip::TextureOptions::opaqueDetect)
        .def_readwrite("monochromeDetect", &ip::TextureOptions::monochromeDetect)
        .def_readwrite("nanHandling", &ip::TextureOptions::nanHandling)
        .def_readwrite("highlightCompensation", &ip::TextureOptions::highlightCompensation);
    m.def("makeTexture", ipy::withoutGil(&ip::makeTexture), "image"_a, "path"_a,
          "options"_a = defaults, docs::makeTexture);
    // What a header says without its pixels: enough to know what made a file, such as a batch
    // converter's record of its source.
    m.def(
        "getFileStringAttribute",
        [](const std::filesystem::path& path, const std::string& name) {
            return ipy::callWithoutGil([&] {
                const std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(path.string());
                const std::string value =
                    in ? std::string(in->spec().get_string_attribute(name)) : std::string();
                OIIO::geterror(true);  // nothing of a file that can't be opened is kept pending
                return value;
            });
        },
        "path"_a, "name"_a,
        "The string attribute `name` of the first subimage of the file at `path`, read from its "
        "header alone; \"\" when the file can't be opened or has no such attribute. Logs nothing.");
}

void bindMetadata(py::module_& m) {
    m.def("getMetadataFromImage", &ip::getMetadataFromImage, "image"_a, docs::getMetadataFromImage);
    m.def("addMetadataToImage", &ip::addMetadataToImage, "image"_a, "metadata"_a,
          docs::addMetadataToImage);
    py::class_<ip::IccProfileInfo>(m, "IccProfileInfo", docs::IccProfileInfo)
        .def(py::init<>())
        .def_readonly("colorSpace", &ip::IccProfileInfo::colorSpace)
        .def_readonly("description", &ip::IccProfileInfo::description);
    m.def("getIccProfileInfo", &ip::getIccProfileInfo, "image"_a, docs::getIccProfileInfo);
    m.def("removeCmykAttributes", &ip::removeCmykAttributes, "image"_a, docs::removeCmykAttributes);
}

void bindOperations(py::module_& m) {
    const auto whole = py::arg_v("roi", kWholeImage, "ROI()");
    m.def("cut", ipy::withoutGil(&ip::cut), "image"_a, "roi"_a, docs::cut);
    m.def("fit", ipy::withoutGil(&ip::fit), "image"_a, "roi"_a, docs::fit);
    m.def("resize", ipy::withoutGil(&ip::resize), "image"_a, "roi"_a, docs::resize);
    m.def("rotate", ipy::withoutGil(&ip::rotate), "image"_a, "angle"_a, "recomputeRoi"_a,
          docs::rotate);
    m.def("paste", ipy::withoutGil(&ip::paste), "dst"_a, "x"_a, "y"_a, "src"_a, whole, docs::paste);
    m.def("over", ipy::withoutGil(&ip::over), "foreground"_a, "background"_a, whole, docs::over);
    m.def("createSolidColorImage", ipy::withoutGil(&ip::createSolidColorImage), "color"_a, "roi"_a,
          docs::createSolidColorImage);
    m.def(
        "compositeOverBackgroundColor",
        [](ip::Image& image, const std::vector<float>& backgroundColor) {
            ipy::requireNoPixelArrays(image, "compositeOverBackgroundColor");
            ipy::callWithoutGil([&] { ip::compositeOverBackgroundColor(image, backgroundColor); });
        },
        "image"_a, "backgroundColor"_a,
        withNote(docs::compositeOverBackgroundColor,
                 "Raises ValueError while an array from pixels() shares the "
                 "image's memory.")
            .c_str());
    m.def("preMultiply", ipy::withoutGil(&ip::preMultiply), "image"_a, "mode"_a, docs::preMultiply);
    m.def(
        "addAlphaChannel",
        [](ip::Image& image, float alpha) {
            ipy::requireNoPixelArrays(image, "addAlphaChannel");
            return ipy::callWithoutGil([&] { return ip::addAlphaChannel(image, alpha); });
        },
        "image"_a, "alpha"_a,
        withNote(docs::addAlphaChannel,
                 "Raises ValueError while an array from pixels() shares the "
                 "image's memory.")
            .c_str());
    m.def("colorConvert", ipy::withoutGil(&ip::colorConvert), "image"_a, "fromSpace"_a, "toSpace"_a,
          docs::colorConvert);
    m.def(
        "shuffle",
        [](const ip::Image& image, int channelCount, const std::vector<int>& channelOrder) {
            if (channelCount < 0 || channelOrder.size() < static_cast<std::size_t>(channelCount)) {
                throw py::value_error(
                    "shuffle needs a channelOrder entry for each of the "
                    "channelCount channels");
            }
            return ipy::callWithoutGil(
                [&] { return ip::shuffle(image, channelCount, channelOrder); });
        },
        "image"_a, "channelCount"_a, "channelOrder"_a, docs::shuffle);
    m.def("channelAppend", ipy::withoutGil(&ip::channelAppend), "first"_a, "second"_a, whole,
          docs::channelAppend);
    m.def("invert", ipy::withoutGil(&ip::invert), "image"_a, whole, docs::invert);
    m.def("invertChannel", ipy::withoutGil(&ip::invertChannel), "image"_a, "channelName"_a,
          docs::invertChannel);
    m.def("normalize", ipy::withoutGil(&ip::normalize), "image"_a, "targetMin"_a, "targetMax"_a,
          "channelNames"_a = std::vector<std::string>{}, docs::normalize);
}

void bindIdImages(py::module_& m) {
    m.def("convertIdImageToUint", ipy::withoutGil(&ip::convertIdImageToUint), "image"_a,
          docs::convertIdImageToUint);
    m.def(
        "idImageToMask",
        [](ip::Image& image) {
            ipy::requireNoPixelArrays(image, "idImageToMask");
            ipy::callWithoutGil([&] { ip::idImageToMask(image); });
        },
        "image"_a,
        withNote(docs::idImageToMask,
                 "Raises ValueError while an array from pixels() shares the "
                 "image's memory.")
            .c_str());
}

}  // namespace

// The compiled half of the package vorel_usd_image_processing, whose __init__ re-exports it.
PYBIND11_MODULE(_core, m) {
    m.doc() = R"doc(
Image reading, writing and operations for USD pipelines, over OpenImageIO. The functions keep
their C++ names and failure values: an empty (falsy) Image, False or 0, with the reason in the
"vorel_usd_image_processing" logger of Python's logging.)doc";
    ipy::bindPixelArrays(m);
    bindImage(m);
    bindTagsAndPixels(m);
    bindReading(m);
    bindWriting(m);
    bindTextures(m);
    bindMetadata(m);
    bindOperations(m);
    bindIdImages(m);
#if defined(VOREL_USD_ASSETS)
    ipy::bindUsdAssets(m);
    m.attr("usdAssetsAvailable") = true;
#else
    m.attr("usdAssetsAvailable") = false;  // built against the stand-in for OpenUSD's Hio
    m.attr("materialxAvailable") = false;  // MaterialX documents come with USD assets
#endif
    m.attr("__version__") = VOREL_VERSION;
    ipy::installLoggingBridge();
}
