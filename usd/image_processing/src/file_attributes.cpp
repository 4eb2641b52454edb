// What attributes say of the file an image came from: its ICC profile and a CMYK encoding.

#include "file_attributes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include <vorel/usd/image_processing/image_processing.h>

namespace vorel::usd::image_processing {

namespace {

// ---------------------------------------------------------------------------------------------
// ICC profiles. Every offset, length and count in a profile comes from a stranger's file: each
// is checked against the bytes actually there before it is used, so a profile can't make us
// read outside it, whatever it claims.
// ---------------------------------------------------------------------------------------------

/// Some bytes of a profile: the whole of it, or a tag or a text inside it.
struct Bytes {
    const unsigned char* data = nullptr;
    size_t size = 0;
};

constexpr size_t kHeaderSize = 128;

/// The `length` bytes at `offset` of `bytes`, or nullopt when they don't lie whole inside it
/// (compared so that no sum can overflow).
std::optional<Bytes> slice(Bytes bytes, size_t offset, size_t length) {
    if (offset > bytes.size || length > bytes.size - offset) {
        return std::nullopt;
    }
    return Bytes{bytes.data + offset, length};
}

/// The big-endian 32-bit value at `offset`, or nullopt past the end.
std::optional<std::uint32_t> readUInt32(Bytes bytes, size_t offset) {
    const std::optional<Bytes> field = slice(bytes, offset, 4);
    if (!field) {
        return std::nullopt;
    }
    const unsigned char* const b = field->data;
    return std::uint32_t(b[0]) << 24 | std::uint32_t(b[1]) << 16 | std::uint32_t(b[2]) << 8 | b[3];
}

/// A four-character signature ("desc") as the 32-bit value a profile stores.
constexpr std::uint32_t signature(const char (&text)[5]) {
    return std::uint32_t(text[0]) << 24 | std::uint32_t(text[1]) << 16 |
           std::uint32_t(text[2]) << 8 | std::uint32_t(text[3]);
}

/// Appends `c` in UTF-8.
void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | c >> 6);
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | c >> 12);
        out += char(0x80 | (c >> 6 & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | c >> 18);
        out += char(0x80 | (c >> 12 & 0x3F));
        out += char(0x80 | (c >> 6 & 0x3F));
        out += char(0x80 | (c & 0x3F));
    }
}

constexpr char32_t kReplacement = 0xFFFD;

/// `text` without the characters `padding` at its end.
std::string trimmedEnd(std::string text, char padding) {
    text.erase(text.find_last_not_of(padding) + 1);
    return text;
}

/// 7-bit text as UTF-8: a byte outside ASCII can't be told apart as Latin-1 or Mac Roman, and
/// must not reach a caller (or Python) as invalid UTF-8.
std::string asciiText(Bytes text) {
    std::string out;
    out.reserve(text.size);
    for (size_t i = 0; i < text.size; ++i) {
        appendUtf8(out, text.data[i] < 0x80 ? char32_t(text.data[i]) : kReplacement);
    }
    return out;
}

/// UTF-16BE as UTF-8; an unpaired surrogate becomes U+FFFD and an odd last byte is dropped.
std::string utf16Text(Bytes text) {
    const auto unit = [text](size_t i) -> char32_t {
        return char32_t(text.data[2 * i]) << 8 | text.data[2 * i + 1];
    };
    const auto isHigh = [](char32_t c) { return c >= 0xD800 && c < 0xDC00; };
    const auto isLow = [](char32_t c) { return c >= 0xDC00 && c < 0xE000; };
    std::string out;
    const size_t units = text.size / 2;
    for (size_t i = 0; i < units; ++i) {
        char32_t c = unit(i);
        if (isHigh(c) && i + 1 < units && isLow(unit(i + 1))) {
            c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 1) - 0xDC00);
            ++i;
        } else if (isHigh(c) || isLow(c)) {
            c = kReplacement;
        }
        appendUtf8(out, c);
    }
    return out;
}

/// The profile stored in `attribute`, or no bytes when it isn't an array of bytes.
Bytes profileBytes(const OIIO::ParamValue& attribute) {
    if (attribute.type().basetype != OIIO::TypeDesc::UINT8) {
        return Bytes{};
    }
    return Bytes{static_cast<const unsigned char*>(attribute.data()),
                 static_cast<size_t>(std::max(0, attribute.datasize()))};
}

/// The data colour space of the header ("RGB", "CMYK"), "" for a profile too short for one.
std::string headerColorSpace(Bytes profile) {
    if (profile.size < kHeaderSize) {
        return std::string();
    }
    return trimmedEnd(asciiText(Bytes{profile.data + 16, 4}), ' ');
}

/// The data of the tag `tagSignature` as the tag table places it, or nullopt when there is no
/// such tag or its data doesn't lie whole inside the profile.
std::optional<Bytes> findTag(Bytes profile, std::uint32_t tagSignature) {
    constexpr size_t kTable = kHeaderSize + 4, kEntry = 12;
    const std::optional<std::uint32_t> count = readUInt32(profile, kHeaderSize);
    if (!count) {
        return std::nullopt;
    }
    // The entries that are there, whatever the count claims.
    const size_t entries = std::min<size_t>(*count, (profile.size - kTable) / kEntry);
    for (size_t i = 0; i < entries; ++i) {
        const size_t entry = kTable + i * kEntry;
        if (readUInt32(profile, entry) == tagSignature) {
            return slice(profile, *readUInt32(profile, entry + 4), *readUInt32(profile, entry + 8));
        }
    }
    return std::nullopt;
}

/// The text of a 'desc' tag: ICC v2's textDescriptionType (its ASCII part) or ICC v4's
/// multiLocalizedUnicodeType (its first record); "" for any other type or a text that doesn't
/// lie whole inside the tag.
std::string descriptionText(Bytes tag) {
    const std::optional<std::uint32_t> type = readUInt32(tag, 0);
    if (type == signature("desc")) {
        const std::optional<std::uint32_t> length = readUInt32(tag, 8);
        const std::optional<Bytes> text = length ? slice(tag, 12, *length) : std::nullopt;
        return text ? asciiText(*text) : std::string();
    }
    if (type == signature("mluc") && readUInt32(tag, 8).value_or(0) > 0) {
        // The first record: language, country, then the length and offset of its text.
        const std::optional<std::uint32_t> length = readUInt32(tag, 20),
                                           offset = readUInt32(tag, 24);
        const std::optional<Bytes> text =
            length && offset ? slice(tag, *offset, *length) : std::nullopt;
        return text ? utf16Text(*text) : std::string();
    }
    return std::string();
}

IccProfileInfo profileInfo(Bytes profile) {
    const std::optional<Bytes> desc = findTag(profile, signature("desc"));
    // Texts end in a NUL, sometimes several.
    return IccProfileInfo{headerColorSpace(profile),
                          desc ? trimmedEnd(descriptionText(*desc), '\0') : std::string()};
}

// ---------------------------------------------------------------------------------------------
// CMYK encodings
// ---------------------------------------------------------------------------------------------

/// Whether `attribute` is one a CMYK file leaves: only the exact names and values that
/// OpenImageIO's readers set and its writers act on.
bool describesCmyk(const OIIO::ParamValue& attribute) {
    const std::string& name = attribute.name().string();
    if (name == "tiff:ColorSpace" || name == "jpeg:ColorSpace") {
        return attribute.type() == OIIO::TypeString && attribute.get_string() == "CMYK";
    }
    if (name == "tiff:PhotometricInterpretation") {
        constexpr int kSeparated = 5;
        return attribute.type() == OIIO::TypeInt && attribute.get_int() == kSeparated;
    }
    return name == "ICCProfile" && headerColorSpace(profileBytes(attribute)) == "CMYK";
}

}  // namespace

std::vector<StoredAttribute> cmykEncodingAttributes(const OIIO::ImageSpec& spec) {
    // OpenImageIO also decodes a profile's header into "ICCProfile:..." attributes, which would
    // go on describing a CMYK profile in any file written with them.
    const OIIO::ParamValue* const profile =
        spec.find_attribute("ICCProfile", OIIO::TypeUnknown, /*casesensitive=*/true);
    const bool cmykProfile = profile != nullptr && describesCmyk(*profile);
    std::vector<StoredAttribute> found;
    for (const OIIO::ParamValue& attribute : spec.extra_attribs) {
        if (describesCmyk(attribute) ||
            (cmykProfile && OIIO::Strutil::starts_with(attribute.name(), "ICCProfile:"))) {
            found.push_back({attribute.name().string(), attribute.type()});
        }
    }
    return found;
}

IccProfileInfo getIccProfileInfo(const Image& image) {
    const OIIO::ParamValue* const profile =
        image.buffer.spec().find_attribute("ICCProfile", OIIO::TypeUnknown, /*casesensitive=*/true);
    return profile ? profileInfo(profileBytes(*profile)) : IccProfileInfo{};
}

bool removeCmykAttributes(Image& image) {
    const std::vector<StoredAttribute> found = cmykEncodingAttributes(image.buffer.spec());
    for (const StoredAttribute& attribute : found) {
        image.buffer.specmod().erase_attribute(attribute.name, attribute.type,
                                               /*casesensitive=*/true);
    }
    return !found.empty();
}

}  // namespace vorel::usd::image_processing
