#pragma once
// Stand-in for OpenUSD 25.05's pxr/imaging/hio/types.h: HioFormat and HioGetDataSizeOfFormat.

#include <cstddef>

#include <pxr/imaging/hio/api.h>
#include <pxr/pxr.h>

PXR_NAMESPACE_OPEN_SCOPE

/// Pixel formats of Hio images. Every family has members of 1, 2, 3 and 4 components, in
/// that order; the numbering is OpenUSD's.
enum HioFormat {
    HioFormatInvalid = -1,

    HioFormatUNorm8 = 0,
    HioFormatUNorm8Vec2,
    HioFormatUNorm8Vec3,
    HioFormatUNorm8Vec4,

    HioFormatSNorm8,
    HioFormatSNorm8Vec2,
    HioFormatSNorm8Vec3,
    HioFormatSNorm8Vec4,

    HioFormatFloat16,
    HioFormatFloat16Vec2,
    HioFormatFloat16Vec3,
    HioFormatFloat16Vec4,

    HioFormatFloat32,
    HioFormatFloat32Vec2,
    HioFormatFloat32Vec3,
    HioFormatFloat32Vec4,

    HioFormatDouble64,
    HioFormatDouble64Vec2,
    HioFormatDouble64Vec3,
    HioFormatDouble64Vec4,

    HioFormatUInt16,
    HioFormatUInt16Vec2,
    HioFormatUInt16Vec3,
    HioFormatUInt16Vec4,

    HioFormatInt16,
    HioFormatInt16Vec2,
    HioFormatInt16Vec3,
    HioFormatInt16Vec4,

    HioFormatUInt32,
    HioFormatUInt32Vec2,
    HioFormatUInt32Vec3,
    HioFormatUInt32Vec4,

    HioFormatInt32,
    HioFormatInt32Vec2,
    HioFormatInt32Vec3,
    HioFormatInt32Vec4,

    HioFormatUNorm8srgb,
    HioFormatUNorm8Vec2srgb,
    HioFormatUNorm8Vec3srgb,
    HioFormatUNorm8Vec4srgb,

    HioFormatBC6FloatVec3,
    HioFormatBC6UFloatVec3,
    HioFormatBC7UNorm8Vec4,
    HioFormatBC7UNorm8Vec4srgb,
    HioFormatBC1UNorm8Vec4,
    HioFormatBC3UNorm8Vec4,

    HioFormatCount
};

/// Bytes of one pixel of `hioFormat`, or of one 4x4 block (16 bytes) for the block-compressed
/// formats. `blockWidth` and `blockHeight`, when given, receive the block size in pixels (1 for
/// uncompressed formats). HioFormatInvalid and HioFormatCount give 0.
HIO_API size_t HioGetDataSizeOfFormat(HioFormat hioFormat, size_t* blockWidth = nullptr,
                                      size_t* blockHeight = nullptr);

PXR_NAMESPACE_CLOSE_SCOPE
