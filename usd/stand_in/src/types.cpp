#include <pxr/imaging/hio/types.h>

#include <array>

PXR_NAMESPACE_OPEN_SCOPE

namespace {

// Bytes of one component, family by family in the order of HioFormat, which numbers the
// uncompressed formats in families of four members of 1 to 4 components.
constexpr std::array<size_t, 10> kComponentBytes = {
    1,  // UNorm8
    1,  // SNorm8
    2,  // Float16
    4,  // Float32
    8,  // Double64
    2,  // UInt16
    2,  // Int16
    4,  // UInt32
    4,  // Int32
    1,  // UNorm8 sRGB
};
static_assert(static_cast<size_t>(HioFormatBC6FloatVec3) == 4 * kComponentBytes.size(),
              "the block-compressed formats follow the last family");

constexpr size_t kBlockSize = 4;
constexpr size_t kBytesPerBlock = 16;

}  // namespace

size_t HioGetDataSizeOfFormat(HioFormat hioFormat, size_t* blockWidth, size_t* blockHeight) {
    const bool blockCompressed =
        hioFormat >= HioFormatBC6FloatVec3 && hioFormat <= HioFormatBC3UNorm8Vec4;
    const size_t block = blockCompressed ? kBlockSize : 1;
    if (blockWidth) {
        *blockWidth = block;
    }
    if (blockHeight) {
        *blockHeight = block;
    }
    if (blockCompressed) {
        return kBytesPerBlock;
    }
    if (hioFormat < HioFormatUNorm8 || hioFormat >= HioFormatBC6FloatVec3) {
        return 0;
    }
    const size_t components = static_cast<size_t>(hioFormat) % 4 + 1;
    return components * kComponentBytes[static_cast<size_t>(hioFormat) / 4];
}

PXR_NAMESPACE_CLOSE_SCOPE
