#pragma once

// USD assets as a whole, bound only when the library is built against an OpenUSD with UsdUtils.

#include <pybind11/pybind11.h>

namespace vorel::usd::image_processing::python {

void bindUsdAssets(pybind11::module_& m);

}  // namespace vorel::usd::image_processing::python
