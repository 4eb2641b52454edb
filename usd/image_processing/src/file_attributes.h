#pragma once

// Attributes that describe how the source file encoded its pixels rather than the pixels in
// memory (not installed): the rule for a CMYK file's, shared by removeCmykAttributes and
// makeTexture, which must never write them.

#include <string>
#include <vector>

#include <OpenImageIO/imageio.h>

namespace vorel::usd::image_processing {

/// An attribute as stored, by its exact name and type: what erase_attribute needs to remove that
/// one and no other.
struct StoredAttribute {
    std::string name;
    OIIO::TypeDesc type;
};

/// The attributes of `spec` that describe a CMYK encoding of its file: "tiff:ColorSpace" "CMYK",
/// "tiff:PhotometricInterpretation" 5, "jpeg:ColorSpace" "CMYK", an "ICCProfile" of colour space
/// "CMYK" and the "ICCProfile:..." fields decoded from it. Empty for any image that is not from a CMYK file.
std::vector<StoredAttribute> cmykEncodingAttributes(const OIIO::ImageSpec& spec);

}  // namespace vorel::usd::image_processing
