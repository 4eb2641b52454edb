#pragma once

// Pixel-type tests shared by the source units of the library (not installed).

#include <OpenImageIO/typedesc.h>

namespace vorel::usd::image_processing {

/// True when `type` is one plain value of `base`: no vector, colour or matrix aggregate and no
/// array length. The semantic hint is left out of the test on purpose, so a scalar that some
/// reader marks (for instance as a timecode) still counts.
inline bool isScalarOf(const OIIO::TypeDesc& type, OIIO::TypeDesc::BASETYPE base) {
    return type.basetype == base && type.aggregate == OIIO::TypeDesc::SCALAR && !type.is_array();
}

}  // namespace vorel::usd::image_processing
