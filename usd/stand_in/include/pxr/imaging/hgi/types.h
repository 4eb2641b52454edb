#pragma once
// Stand-in for OpenUSD 25.05's pxr/imaging/hgi/types.h: the HgiFormat enumeration.

#include <pxr/pxr.h>

PXR_NAMESPACE_OPEN_SCOPE

/// Pixel formats of the Hgi graphics interface, in OpenUSD's numbering. The 8-bit families have
/// no three-component member.
enum HgiFormat : int {
    HgiFormatInvalid = -1,

    HgiFormatUNorm8 = 0,
    HgiFormatUNorm8Vec2,
    HgiFormatUNorm8Vec4,

    HgiFormatSNorm8,
    HgiFormatSNorm8Vec2,
    HgiFormatSNorm8Vec4,

    HgiFormatFloat16,
    HgiFormatFloat16Vec2,
    HgiFormatFloat16Vec3,
    HgiFormatFloat16Vec4,

    HgiFormatFloat32,
    HgiFormatFloat32Vec2,
    HgiFormatFloat32Vec3,
    HgiFormatFloat32Vec4,

    HgiFormatInt16,
    HgiFormatInt16Vec2,
    HgiFormatInt16Vec3,
    HgiFormatInt16Vec4,

    HgiFormatUInt16,
    HgiFormatUInt16Vec2,
    HgiFormatUInt16Vec3,
    HgiFormatUInt16Vec4,

    HgiFormatInt32,
    HgiFormatInt32Vec2,
    HgiFormatInt32Vec3,
    HgiFormatInt32Vec4,

    HgiFormatUNorm8Vec4srgb,

    HgiFormatBC6FloatVec3,
    HgiFormatBC6UFloatVec3,
    HgiFormatBC7UNorm8Vec4,
    HgiFormatBC7UNorm8Vec4srgb,
    HgiFormatBC1UNorm8Vec4,
    HgiFormatBC3UNorm8Vec4,

    HgiFormatFloat32UInt8,
    HgiFormatPackedInt1010102,

    HgiFormatCount
};

PXR_NAMESPACE_CLOSE_SCOPE
