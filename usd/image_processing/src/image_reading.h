#pragma once

// The road of a whole image from an opened reader into an Image: shared by readImage and by the
// readers of USD assets, which open the same readers on bytes in memory (not installed).

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <OpenImageIO/imageio.h>
#include <vorel/usd/image_processing/image_processing.h>

#include "parallel_image.h"
#include "pixel_memory.h"

namespace vorel::usd::image_processing {

/// Rows read per call. Readers decode a band through buffers of about its size, so a band is
/// kept small beside the image; but never smaller than the file's own unit of compression (a
/// TIFF strip, OpenEXR's 256-row DWAB blocks), which would be decoded again for every band.
inline int bandRows(const OIIO::ImageSpec& spec) {
    constexpr int kRows = 32;  // a whole number of OpenEXR's chunks of 1, 16 or 32 rows
    int rows = std::max(kRows, spec.get_int_attribute("tiff:RowsPerStrip", 0));
    if (spec.get_string_attribute("compression") == "dwab") {
        rows = std::max(rows, 256);
    }
    if (spec.tile_height > 0) {
        rows = spec.tile_height * std::max(1, rows / spec.tile_height);
    }
    return rows;
}

/// Reads the first subimage at MIP level 0, all channels in the file's own pixel type, straight
/// into `pixels` (laid out as the spec's contiguous image): bands of scanlines, or rows of tiles.
/// OpenImageIO's whole-image read_image goes through a buffer of its own, a second copy of up
/// to 64 MiB; band by band, what the reader holds besides the image stays about one band.
inline bool readBands(OIIO::ImageInput& in, const OIIO::ImageSpec& spec, char* pixels) {
    const auto rowBytes = static_cast<std::int64_t>(spec.scanline_bytes());
    const auto sliceBytes = rowBytes * spec.height;
    const int band = bandRows(spec);
    const int yend = spec.y + spec.height;
    for (int y = spec.y; y < yend; y += band) {
        char* const rows = pixels + (y - spec.y) * rowBytes;
        const int bandEnd = std::min(y + band, yend);
        if (spec.tile_width > 0) {
            if (!in.read_tiles(/*subimage=*/0, /*miplevel=*/0, spec.x, spec.x + spec.width, y,
                               bandEnd, spec.z, spec.z + spec.depth, /*chbegin=*/0, spec.nchannels,
                               spec.format, rows, OIIO::AutoStride, OIIO::AutoStride, sliceBytes)) {
                return false;
            }
            continue;
        }
        for (int z = 0; z < spec.depth; ++z) {
            if (!in.read_scanlines(/*subimage=*/0, /*miplevel=*/0, y, bandEnd, spec.z + z,
                                   /*chbegin=*/0, spec.nchannels, spec.format,
                                   rows + z * sliceBytes)) {
                return false;
            }
        }
    }
    return true;
}

/// Touches every page of a new buffer on OpenImageIO's threads. The readers fill it band by band
/// on one thread or a few, and there the first touch of each page of a fresh allocation is a page
/// fault of its own; spread over all threads beforehand, the faults cost a fraction of that.
inline void touchPages(const OIIO::ImageSpec& spec, char* pixels) {
    constexpr std::int64_t kPage = 4096;
    const auto rowBytes = static_cast<std::int64_t>(spec.scanline_bytes());
    const auto sliceBytes = rowBytes * spec.height;
    parallelImage(OIIO::ROI(0, 1, 0, spec.height), [&](OIIO::ROI rows) {
        for (int z = 0; z < spec.depth; ++z) {
            const std::int64_t begin = z * sliceBytes + rows.ybegin * rowBytes;
            const std::int64_t end = z * sliceBytes + rows.yend * rowBytes;
            for (std::int64_t at = (begin + kPage - 1) / kPage * kPage; at < end; at += kPage) {
                pixels[at] = 0;
            }
        }
    });
}

/// OpenImageIO's text for a failed read: the buffer's when it has one (a refused or failed
/// allocation leaves its text there only), else the global one. The global text is taken either
/// way, so that it never comes up again in a later failure.
inline std::string readFailure(OIIO::ImageBuf& buffer) {
    std::string text = OIIO::geterror(true);
    return buffer.has_error() ? buffer.geterror(true) : text;
}

/// The first subimage at MIP level 0 of an opened reader (or of none: a failed open), in the
/// file's own pixel type; on failure the empty Image and OpenImageIO's text in `failure`, which
/// the caller logs (so that the line names the caller's source).
inline Image readOpenedImage(const std::unique_ptr<OIIO::ImageInput>& in, std::string& failure) {
    OIIO::ImageBuf buffer;
    if (in) {
        const OIIO::ImageSpec& spec = in->spec();
        // Uninitialised local storage that the decoder fills and the result keeps. A size beyond
        // the host's limits or of no pixels, or an allocation that failed inside OpenImageIO,
        // leaves a buffer without pixels and the reason on it (deep files have no flat pixels
        // either): a failed read.
        buffer = allocatePixels(spec, OIIO::InitializePixels::No);
        auto* const pixels = static_cast<char*>(buffer.localpixels());
        if (pixels != nullptr) {
            touchPages(spec, pixels);
        }
        const bool read = pixels != nullptr && readBands(*in, spec, pixels);
        if (read) {
            in->close();
            Image image;
            image.buffer = std::move(buffer);
            return image;
        }
    }
    failure = readFailure(buffer);
    return Image{};
}

}  // namespace vorel::usd::image_processing
