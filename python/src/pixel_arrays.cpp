#include "pixel_arrays.h"

#include "without_gil.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vorel::usd::image_processing::python {

namespace {

struct PixelTypeName {
    OIIO::TypeDesc::BASETYPE base;
    const char* numpyName;
};

// The types an ImageBuf holds; it has no 64-bit integers.
constexpr std::array<PixelTypeName, 9> kPixelTypes{{
    {OIIO::TypeDesc::UINT8, "uint8"},
    {OIIO::TypeDesc::INT8, "int8"},
    {OIIO::TypeDesc::UINT16, "uint16"},
    {OIIO::TypeDesc::INT16, "int16"},
    {OIIO::TypeDesc::UINT32, "uint32"},
    {OIIO::TypeDesc::INT32, "int32"},
    {OIIO::TypeDesc::HALF, "float16"},
    {OIIO::TypeDesc::FLOAT, "float32"},
    {OIIO::TypeDesc::DOUBLE, "float64"},
}};

/// Arrays alive per image. Only touched with the GIL held, which serialises it.
std::unordered_map<const Image*, int>& liveArrays() {
    static std::unordered_map<const Image*, int> counts;
    return counts;
}

/// The base object of every pixel array: holds the Image's Python object and counts itself
/// among the image's live arrays while it exists.
class PixelArrayOwner {
public:
    PixelArrayOwner(py::object owner, const Image& image)
        : owner_(std::move(owner)), image_(&image) {
        ++liveArrays()[image_];
    }
    ~PixelArrayOwner() {
        auto found = liveArrays().find(image_);
        if (found != liveArrays().end() && --found->second == 0) {
            liveArrays().erase(found);
        }
    }
    PixelArrayOwner(const PixelArrayOwner&) = delete;
    PixelArrayOwner& operator=(const PixelArrayOwner&) = delete;

private:
    py::object owner_;
    const Image* image_;
};

}  // namespace

py::dtype dtypeOf(OIIO::TypeDesc type) {
    const auto found =
        std::find_if(kPixelTypes.begin(), kPixelTypes.end(),
                     [&](const PixelTypeName& t) { return t.base == type.basetype; });
    if (found == kPixelTypes.end() || type.aggregate != OIIO::TypeDesc::SCALAR || type.is_array()) {
        throw py::type_error("no NumPy dtype for pixel type " + std::string(type.c_str()));
    }
    return py::dtype(found->numpyName);
}

OIIO::TypeDesc typeDescOf(const py::dtype& dtype) {
    const auto name = py::str(dtype.attr("name")).cast<std::string>();
    const auto found = std::find_if(kPixelTypes.begin(), kPixelTypes.end(),
                                    [&](const PixelTypeName& t) { return name == t.numpyName; });
    if (found == kPixelTypes.end() || !dtype.attr("isnative").cast<bool>()) {
        throw py::type_error("unsupported pixel dtype " + py::repr(dtype).cast<std::string>() +
                             ": use a native-order integer or float dtype");
    }
    return OIIO::TypeDesc(found->base);
}

py::array pixelArray(const py::object& self) {
    Image& image = self.cast<Image&>();
    void* pixels = image.buffer.localpixels();
    if (!image.buffer.initialized() || pixels == nullptr) {
        throw py::value_error("the image has no pixels in memory");
    }
    const OIIO::ImageSpec& spec = image.buffer.spec();
    if (spec.depth > 1) {
        throw py::value_error("a volume image has no (height, width, channels) array");
    }
    const std::vector<py::ssize_t> shape{spec.height, spec.width, spec.nchannels};
    const std::vector<py::ssize_t> strides{static_cast<py::ssize_t>(image.buffer.scanline_stride()),
                                           static_cast<py::ssize_t>(image.buffer.pixel_stride()),
                                           static_cast<py::ssize_t>(spec.format.size())};
    py::object owner = py::cast(std::make_unique<PixelArrayOwner>(self, image));
    return py::array(dtypeOf(spec.format), shape, strides, pixels, owner);
}

Image imageFromArray(const py::array& array) {
    const OIIO::TypeDesc format = typeDescOf(array.dtype());
    if (array.ndim() != 2 && array.ndim() != 3) {
        throw py::value_error(
            "from_array takes an array of shape (height, width) or (height, "
            "width, channels)");
    }
    if (array.size() == 0) {
        throw py::value_error("from_array takes no empty array");
    }
    if (!(array.flags() & py::array::c_style)) {
        throw py::value_error(
            "from_array takes a C-contiguous array: pass "
            "numpy.ascontiguousarray(array)");
    }
    const auto height = static_cast<int>(array.shape(0));
    const auto width = static_cast<int>(array.shape(1));
    const int channels = array.ndim() == 3 ? static_cast<int>(array.shape(2)) : 1;
    // The library copies the samples, so a read-only array serves as well.
    void* data = const_cast<void*>(array.data());
    return callWithoutGil(
        [&] { return createImageFromData(data, width, height, channels, format); });
}

void requireEnoughData(const py::buffer_info& data, int width, int height, int numChannels,
                       OIIO::TypeDesc format) {
    if (PyBuffer_IsContiguous(data.view(), 'C') == 0) {
        throw py::value_error("createImageFromData takes C-contiguous data");
    }
    // OpenImageIO turns a size of 0 into 1, so even then one value is read.
    const auto atLeastOne = [](int n) { return static_cast<py::ssize_t>(std::max(n, 1)); };
    const py::ssize_t needed = atLeastOne(width) * atLeastOne(height) * atLeastOne(numChannels) *
                               static_cast<py::ssize_t>(format.size());
    if (data.size * data.itemsize < needed) {
        throw py::value_error("createImageFromData needs " + std::to_string(needed) +
                              " bytes of data, got " + std::to_string(data.size * data.itemsize));
    }
}

void requireNoPixelArrays(const Image& image, const char* operation) {
    if (liveArrays().count(&image) != 0) {
        throw py::value_error(std::string(operation) +
                              " replaces the image's pixels, but arrays from pixels() still use "
                              "them: copy or delete those arrays first");
    }
}

void bindPixelArrays(py::module_& module) {
    py::class_<PixelArrayOwner>(module, "_PixelArrayOwner");
}

}  // namespace vorel::usd::image_processing::python
