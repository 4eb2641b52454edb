// readImage reads band by band: the same Image as one whole-image read_image for scanline and
// tiled files of several layouts, and the same one warn line when a file can't be read.

#include <filesystem>
#include <fstream>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

class ReadingBands : public vorel::test::LibraryTest {
protected:
    /// Writes `source` with the extra attributes of `spec` (tiles, strips, compression).
    void write(const OIIO::ImageBuf& source, const OIIO::ImageSpec& spec, const std::string& file) {
        auto out = OIIO::ImageOutput::create(file);
        ASSERT_TRUE(out && out->open(file, spec));
        ASSERT_TRUE(source.write(out.get()));
        ASSERT_TRUE(out->close());
    }

    /// One whole-image read_image into an uninitialised buffer of the file's spec.
    static OIIO::ImageBuf readWhole(const std::string& file) {
        auto in = OIIO::ImageInput::open(file);
        OIIO::ImageBuf buffer(in->spec(), OIIO::InitializePixels::No);
        in->read_image(0, 0, 0, in->spec().nchannels, in->spec().format, buffer.localpixels());
        return buffer;
    }
};

TEST_F(ReadingBands, EveryLayoutReadsAsOneWholeRead) {
    struct Case {
        const char* name;
        OIIO::TypeDesc format;
        int tile;          // 0 for scanlines
        int rowsPerStrip;  // TIFF only
        const char* compression;
        int x, y;  // origin of the data window (OpenEXR keeps it)
    };
    const Case cases[] = {
        {"strips.tif", OIIO::TypeDesc::UINT16, 0, 7, "zip", 0, 0},
        {"one-strip.tif", OIIO::TypeDesc::UINT8, 0, 1000, "lzw", 0, 0},
        {"tiles.tif", OIIO::TypeDesc::FLOAT, 16, 0, "zip", 0, 0},
        {"zip.exr", OIIO::TypeDesc::HALF, 0, 0, "zip", 5, -9},
        {"dwab.exr", OIIO::TypeDesc::FLOAT, 0, 0, "dwab", 0, 0},
        {"tiles.exr", OIIO::TypeDesc::FLOAT, 32, 0, "piz", -3, 4},
        {"rows.png", OIIO::TypeDesc::UINT16, 0, 0, "", 0, 0},
        {"rows.jpg", OIIO::TypeDesc::UINT8, 0, 0, "", 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Taller than several bands and not a multiple of any band, tile or strip.
        ip::Image source = makeGradient(83, 301, 3, c.format);
        OIIO::ImageSpec spec = source.buffer.spec();
        spec.x = c.x;
        spec.y = c.y;
        spec.tile_width = spec.tile_height = c.tile;
        if (c.rowsPerStrip > 0) {
            spec.attribute("tiff:RowsPerStrip", c.rowsPerStrip);
        }
        if (*c.compression) {
            spec.attribute("compression", c.compression);
        }
        source.buffer.set_origin(c.x, c.y);
        const std::string file = (temp / c.name).string();
        write(source.buffer, spec, file);

        const ip::Image read = ip::readImage(file);
        ASSERT_TRUE(read.buffer.initialized());
        EXPECT_TRUE(sameImage(read.buffer, readWhole(file)));
    }
    expectNoWarnings();
}

TEST_F(ReadingBands, FailuresKeepTheOneWarnLine) {
    // Cut off after the first rows: the bands before the cut are read, then the read fails as a
    // whole and nothing of it is returned.
    const std::string whole = (temp / "whole.png").string();
    const ip::Image source = makeGradient(64, 400, 4, OIIO::TypeDesc::UINT8);
    write(source.buffer, source.buffer.spec(), whole);
    const std::string cut = (temp / "cut.png").string();
    std::filesystem::copy_file(whole, cut);
    std::filesystem::resize_file(cut, std::filesystem::file_size(whole) / 2);

    // The text is what the whole-image read leaves in OpenImageIO's global error.
    readWhole(cut);
    const std::string expected = "Couldn't read image " + cut + ":\n" + OIIO::geterror(true);
    EXPECT_FALSE(ip::readImage(cut).buffer.initialized());
    expectOnlyMessage(spdlog::level::warn, expected);
}

}  // namespace
