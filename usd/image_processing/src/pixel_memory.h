#pragma once

// Pixel memory whose size comes from a file header or a caller (not installed). Such sizes are
// untrusted: they are multiplied in size_t with every step checked, held against the host's
// OpenImageIO limits, and only then allocated.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imageio.h>
#include <fmt/format.h>

namespace vorel::usd::image_processing {

/// The product of `factors` in size_t, or nullopt when a factor is negative or the product
/// doesn't fit: a count that memory could never hold.
inline std::optional<size_t> checkedProduct(std::initializer_list<std::int64_t> factors) {
    size_t product = 1;
    for (const std::int64_t factor : factors) {
        if (factor < 0 || __builtin_mul_overflow(product, static_cast<size_t>(factor), &product)) {
            return std::nullopt;
        }
    }
    return product;
}

/// Why `width` x `height` x `depth` pixels of `channels` channels of `format` aren't to be
/// allocated, or "" when they may be. The limits are the host's OpenImageIO attributes
/// "limits:channels" and "limits:imagesize_MB" (0: none); OpenImageIO 2.4 checks them in a few
/// readers only, and never when an ImageBuf allocates.
inline std::string pixelMemoryRefusal(int width, int height, int depth, int channels,
                                      OIIO::TypeDesc format) {
    const int maxChannels = OIIO::get_int_attribute("limits:channels", 0);
    if (maxChannels > 0 && channels > maxChannels) {
        return fmt::format("{} channels exceed the limit of {} (limits:channels)", channels,
                           maxChannels);
    }
    const std::optional<size_t> bytes =
        checkedProduct({width, height, depth, channels, static_cast<std::int64_t>(format.size())});
    if (!bytes) {
        return fmt::format("{}x{}x{} pixels of {} channels of {} can't be represented in memory",
                           width, height, depth, channels, format.c_str());
    }
    constexpr size_t kMB = size_t(1) << 20;
    const auto maxMB = static_cast<size_t>(OIIO::get_int_attribute("limits:imagesize_MB", 0));
    if (maxMB > 0 && *bytes > maxMB * kMB) {
        return fmt::format("{} MB of pixel data exceed the limit of {} MB (limits:imagesize_MB)",
                           (*bytes + kMB - 1) / kMB, maxMB);
    }
    return std::string();
}

/// An ImageBuf without pixel memory (localpixels() null) whose error says `why`.
inline OIIO::ImageBuf withoutPixels(const std::string& why) {
    OIIO::ImageBuf none;
    none.error(why);
    return none;
}

/// An ImageBuf of `spec` with local pixel memory or, when that memory isn't to be had, one without
/// whose error says why: our refusal, or OpenImageIO's own text when its allocation failed (it
/// swallows std::bad_alloc and leaves the buffer without memory). A spec of no pixels at all (a
/// header that claims no rows or columns) is refused too: OpenImageIO would make a row of it.
inline OIIO::ImageBuf allocatePixels(const OIIO::ImageSpec& spec, OIIO::InitializePixels zero) {
    if (spec.image_pixels() == 0) {
        return withoutPixels(fmt::format("the image claims {}x{}x{} pixels", spec.width,
                                         spec.height, spec.depth));
    }
    const std::string refusal =
        pixelMemoryRefusal(spec.width, spec.height, spec.depth, spec.nchannels, spec.format);
    return refusal.empty() ? OIIO::ImageBuf(spec, zero) : withoutPixels(refusal);
}

}  // namespace vorel::usd::image_processing
