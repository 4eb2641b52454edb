#pragma once

// Pixel types as NumPy dtypes, and NumPy arrays over an Image's own pixel memory.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <vorel/usd/image_processing/image_processing.h>

namespace vorel::usd::image_processing::python {

namespace py = pybind11;

/// The NumPy dtype of a scalar OpenImageIO pixel type. Raises TypeError for a type NumPy has no
/// dtype for.
py::dtype dtypeOf(OIIO::TypeDesc type);

/// The OpenImageIO pixel type of a native-order NumPy dtype. Raises TypeError for any other.
OIIO::TypeDesc typeDescOf(const py::dtype& dtype);

/// An array of shape (height, width, channels) over the pixel memory of `self`, an Image, in its
/// own pixel type. No pixel is copied; the array keeps `self` alive. Raises ValueError for an
/// image without pixels in memory.
py::array pixelArray(const py::object& self);

/// A new Image holding a copy of a C-contiguous array of shape (height, width) or (height,
/// width, channels), through createImageFromData. Raises TypeError for an unsupported dtype and
/// ValueError for any other shape, an empty or a non-contiguous array.
Image imageFromArray(const py::array& array);

/// Checks that `data` holds at least `width` x `height` x `numChannels` values of `format`, in C
/// order, so that createImageFromData never reads past it; raises ValueError otherwise.
void requireEnoughData(const py::buffer_info& data, int width, int height, int numChannels,
                       OIIO::TypeDesc format);

/// Raises ValueError when arrays from pixelArray over `image` still exist: `operation` replaces
/// the image's pixel memory and would leave them pointing at freed memory.
void requireNoPixelArrays(const Image& image, const char* operation);

/// Registers the small type that ties arrays to their image.
void bindPixelArrays(py::module_& module);

}  // namespace vorel::usd::image_processing::python
