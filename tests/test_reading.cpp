// Files and memory into Images: real files of several layouts written by OpenImageIO, the failure
// lines, sizes that a header or a caller claims, and the list of extensions.

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>

#include <OpenImageIO/strutil.h>
#include <gmock/gmock.h>

#include "test_support.h"

namespace fs = std::filesystem;
namespace ip = vorel::usd::image_processing;
using namespace vorel::test;
using spdlog::level::err;
using spdlog::level::warn;
using T = OIIO::TypeDesc;
using namespace ::testing;

namespace {

/// One whole-image read_image into an uninitialised buffer of the file's spec.
OIIO::ImageBuf readWhole(const std::string& file) {
    auto in = OIIO::ImageInput::open(file);
    OIIO::ImageBuf buffer(in->spec(), OIIO::InitializePixels::No);
    in->read_image(0, 0, 0, in->spec().nchannels, in->spec().format, buffer.localpixels());
    return buffer;
}

/// An uncompressed 67 x 37 OpenEXR file whose header then claims `width` x `height` pixels of
/// four half channels, with an offset table grown to match so that OpenEXR opens it.
fs::path exrClaiming(const fs::path& folder, int width, int height) {
    OIIO::ImageSpec spec(67, 37, 4, T::HALF);
    spec.attribute("compression", "none");
    writeWithOIIO(OIIO::ImageBuf(spec), folder / "valid.exr");
    std::ifstream in(folder / "valid.exr", std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), {}};
    // dataWindow: xmin, ymin, xmax, ymax after the name, the type name and the size.
    const std::string key("dataWindow\0box2i\0", 17);
    const std::int32_t last[] = {width - 1, height - 1};
    std::memcpy(&bytes[bytes.find(key) + key.size() + 4 + 8], last, sizeof last);
    // 37 chunks of y, size and a row of 67 x 4 halves follow the table of 37 offsets.
    const size_t tableEnd = bytes.size() - 37 * (4 + 4 + 67 * 8);
    bytes.insert(tableEnd, std::string(size_t(height - 37) * 8, '\0'));
    std::ofstream(folder / "claiming.exr", std::ios::binary).write(bytes.data(), bytes.size());
    return folder / "claiming.exr";
}

class Reading : public LibraryTest {
protected:
    /// No line when the call gave a result, else exactly one at `level` matching `pattern`.
    void expectWholeOrOneLine(bool gave, level_enum level, const std::string& pattern) {
        const auto records = log.records();
        log.clear();
        ASSERT_EQ(records.size(), gave ? 0u : 1u) << records.at(0).message;
        if (!gave) {
            EXPECT_EQ(records[0].level, level);
            EXPECT_THAT(records[0].message, ContainsRegex(pattern));
        }
    }
};

TEST_F(Reading, EveryLayoutReadsAsOneWholeReadInTheFilesOwnType) {
    const struct {
        const char* name;
        T format;
        int tile, rowsPerStrip;  // 0: scanlines; TIFF only
        const char* compression;
        int x, y;  // origin of the data window (OpenEXR keeps it)
    } cases[] = {
        {"strips.tif", T::UINT16, 0, 7, "zip", 0, 0},
        {"one-strip.tif", T::UINT8, 0, 1000, "lzw", 0, 0},
        {"tiles.tif", T::FLOAT, 16, 0, "zip", 0, 0},
        {"zip.exr", T::HALF, 0, 0, "zip", 5, -9},
        {"dwab.exr", T::FLOAT, 0, 0, "dwab", 0, 0},
        {"tiles.exr", T::FLOAT, 32, 0, "piz", -3, 4},
        {"rows.png", T::UINT16, 0, 0, "", 0, 0},
        {"rows.jpg", T::UINT8, 0, 0, "", 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);  // 301 rows: several bands, and a multiple of no band, tile or strip
        ip::Image source = makeGradient(83, 301, 3, c.format);
        source.buffer.set_origin(c.x, c.y);
        OIIO::ImageSpec spec = source.buffer.spec();
        spec.tile_width = spec.tile_height = c.tile;
        if (c.rowsPerStrip > 0)
            spec.attribute("tiff:RowsPerStrip", c.rowsPerStrip);
        if (*c.compression)
            spec.attribute("compression", c.compression);
        const std::string file = (temp / c.name).string();
        auto out = OIIO::ImageOutput::create(file);
        ASSERT_TRUE(out && out->open(file, spec) && source.buffer.write(out.get()) && out->close());

        const ip::Image read = ip::readImage(file);
        EXPECT_TRUE(sameImage(read.buffer, readWhole(file)));  // its own type, window and all
        EXPECT_EQ(read.buffer.storage(), OIIO::ImageBuf::LOCALBUFFER);
        const ip::ImageSpec size = ip::getImageSpec(file);
        EXPECT_EQ(std::pair(size.width, size.height), std::pair(83, 301));
    }
    EXPECT_EQ(ip::getColorSpace(ip::readImage(temp / "zip.exr")), "Linear");  // the reader's tag
    expectNoWarnings();
}

TEST_F(Reading, MissingAndCutFilesFailWithTheirOneLine) {
    const std::string missing = (temp / "missing.png").string(), cut = (temp / "cut.png").string();
    EXPECT_FALSE(ip::readImage(missing).buffer.initialized());
    EXPECT_EQ(log.records().at(0).filename, "usd/image_processing/src/image_io.cpp");
    expectOnly(warn, "Couldn't read image " + missing + ":\n");
    EXPECT_EQ(ip::getImageSpec(missing).width, 0);
    expectOnly(err, "Couldn't open image " + missing + ":\n");
    // A cut file opens, and the bands read before the cut are dropped with the rest; the text is
    // what a whole read leaves in OpenImageIO's global error.
    writeWithOIIO(makeGradient(64, 400, 4, T::UINT8).buffer, cut);
    fs::resize_file(cut, fs::file_size(cut) / 2);
    const std::string reason = (readWhole(cut), OIIO::geterror(true));
    EXPECT_FALSE(ip::readImage(cut).buffer.initialized());
    ASSERT_EQ(log.records(warn).size(), 1u);  // the reason may be empty: OpenImageIO's own
    EXPECT_EQ(log.records().at(0).message, "Couldn't read image " + cut + ":\n" + reason);
    EXPECT_EQ(ip::getImageSpec(cut).height, 400);
}

TEST_F(Reading, ClaimedSizesFailBeforeTheyAreAllocated) {
    // 262661 x 15105: 31.7 GB, under OpenImageIO's default limit of 32 GB.
    const fs::path claiming = exrClaiming(temp.path(), 262661, 15105);
    EXPECT_EQ(ip::getImageSpec(claiming).width, 262661);
    {
        const ScopedLimit limit("limits:imagesize_MB", 1024);
        EXPECT_FALSE(ip::readImage(claiming).buffer.initialized());
        expectOnly(warn, "Couldn't read image " + claiming.string() + ":\n",
                   "30270 MB of pixel data exceed the limit of 1024 MB");
        EXPECT_FALSE(ip::getImageFromAssetPath(claiming.string()).buffer.initialized());
        expectOnly(err, "Couldn't create image:\n", "exceed the limit of 1024 MB");
    }
    // Found by the fuzzer: a DPX header of no columns and 2^30 rows, of which OpenImageIO's
    // ImageBuf would make a column of 8 GB.
    const fs::path noColumns = fs::path(VOREL_FUZZ_REPRODUCERS) / "zero-width-huge-height.dpx";
    EXPECT_FALSE(ip::readImage(noColumns).buffer.initialized());
    expectOnly(warn, "Couldn't read image " + noColumns.string() + ":\n",
               "the image claims 0x1073807360x1 pixels");
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer ends the process on a failed allocation
    // With no limit at all, 8 TB that OpenImageIO can't allocate: its own text.
    const ScopedLimit none("limits:imagesize_MB", 0);
    EXPECT_FALSE(ip::readImage(exrClaiming(temp.path(), 1 << 26, 1 << 14)).buffer.initialized());
    expectOnly(warn, "Couldn't read image " + (temp / "claiming.exr").string() + ":\n",
               "ImageBuf unable to allocate 8796093022208 bytes");
#endif
}

TEST_F(Reading, CreateImageFromDataCopiesOrFailsWithItsLine) {
    std::vector<std::uint16_t> data{1, 2, 3, 4, 5, 6, 65535, 0, 7, 8, 9, 10};
    const ip::Image image = ip::createImageFromData(data.data(), 2, 2, 3, T::UINT16);
    std::fill(data.begin(), data.end(), 0);
    EXPECT_EQ(image.buffer.spec().format, T::UINT16);
    std::vector<std::uint16_t> back(12);
    image.buffer.get_pixels(image.buffer.roi(), T::UINT16, back.data());
    EXPECT_EQ(back, (std::vector<std::uint16_t>{1, 2, 3, 4, 5, 6, 65535, 0, 7, 8, 9, 10}));
    EXPECT_EQ(ip::getColorSpace(image), "");
    EXPECT_TRUE(image.properties.empty());
    expectNoWarnings();

    // The whole text of each failure: our reason, then set_pixels's on a buffer without memory.
    const ScopedLimit limit("limits:imagesize_MB", 1024), channels("limits:channels", 16);
    const std::string noMemory = "\nCannot set_pixels() on an uninitialized ImageBuf";
    const struct {
        int width, height, channels;
        T format;
        std::string reason;
        bool null = false;  // OpenImageIO 2.4 would crash on a null source
    } refusals[] = {
        {4, 4, 3, T::FLOAT, "no pixel data: the data pointer is null", true},
        {0, 0, 3, T::FLOAT, "no pixel data: the data pointer is null", true},
        {4, 4, 3, T(), "ImageBufAlgo without any guess about region of interest"},
        {65536, 32768, 1, T::UINT8,
         "2048 MB of pixel data exceed the limit of 1024 MB (limits:imagesize_MB)"},
        {2147483647, 2147483647, 16, T::FLOAT,
         "2147483647x2147483647x1 pixels of 16 channels of float can't be represented in memory"},
        {-4, 4, 1, T::FLOAT, "-4x4x1 pixels of 1 channels of float can't be represented in memory"},
        {1, 1, 17, T::FLOAT, "17 channels exceed the limit of 16 (limits:channels)"},
    };
    for (const auto& r : refusals) {
        void* data = r.null ? nullptr : back.data();
        EXPECT_FALSE(ip::createImageFromData(data, r.width, r.height, r.channels, r.format)
                         .buffer.initialized());
        expectOnly(err, "Couldn't create image:\n" + r.reason + (r.null ? "" : noMemory));
    }
}

/// A few damaged files of every reader family the library writes, and the fuzzer's finds: each
/// reading entry point gives a whole image (of getImageSpec's size) and no line, or the empty
/// Image and its one line. The broad search stays with the fuzzer; this set is its regression.
TEST_F(Reading, DamagedFilesGiveAWholeImageOrTheirOneLine) {
    const ScopedLimit limit("limits:imagesize_MB", 64), channels("limits:channels", 64);
    std::vector<fs::path> files;
    for (const fs::path& found : fs::directory_iterator(VOREL_FUZZ_REPRODUCERS))
        files.push_back(found);
    for (const std::string extension : {".png", ".jpg", ".bmp", ".gif", ".webp", ".tif", ".exr",
                                        ".tga", ".hdr", ".ppm", ".dpx", ".sgi", ".ico", ".fits"}) {
        const fs::path valid = temp / ("valid" + extension);
        writeWithOIIO(makeGradient(64, 12, extension == ".fits" ? 1 : 3, T::UINT8).buffer, valid);
        std::ifstream in(valid, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        const size_t size = bytes.size();
        const std::pair<std::string, std::string> damaged[] = {
            {"cut-16" + extension, bytes.substr(0, 16)},
            {"cut-half" + extension, bytes.substr(0, size / 2)},
            {"cut-last" + extension, bytes.substr(0, size - 1)},
            {"zero-header" + extension, std::string(16, '\0') + bytes.substr(16)},
            {"huge-16" + extension, std::string(bytes).replace(16, 4, "\xff\xff\xff\x7f")},
            {"huge-20" + extension, std::string(bytes).replace(20, 4, "\xff\xff\xff\xff")},
            {"valid" + extension + ".xyz", bytes}};
        for (const auto& [name, content] : damaged) {
            std::ofstream(temp / name, std::ios::binary) << content;
            files.push_back(temp / name);
        }
    }
    int read = 0;
    for (const fs::path& path : files) {
        SCOPED_TRACE(path.filename().string());
        const std::string file = path.string();
        log.clear();
        const ip::ImageSpec size = ip::getImageSpec(path);
        // Some readers open a damaged header as an image of no pixels, which is no failure.
        const bool opened = log.records().empty() || size.width > 0 || size.height > 0;
        expectWholeOrOneLine(opened, err, "^Couldn't open image " + file + ":\n");
        const ip::Image image = ip::readImage(path);
        read += image.buffer.initialized();
        EXPECT_TRUE(!image.buffer.initialized() || (image.buffer.spec().width == size.width &&
                                                    image.buffer.spec().height == size.height));
        expectWholeOrOneLine(image.buffer.initialized(), warn,
                             "^Couldn't read image " + file + ":\n");
        const ip::Image asset = ip::getImageFromAssetPath(file);
        EXPECT_TRUE(!asset.buffer.initialized() || asset.buffer.spec().format == T::UINT8);
        expectWholeOrOneLine(asset.buffer.initialized(), err,
                             "^(Failed to open image " + file + "|Reading of image " + file +
                                 " failed|Couldn't create image:\n)");
    }
    EXPECT_TRUE(read > 10 && read < int(files.size()) - 30) << read << " of " << files.size();
}

TEST(SupportedExtensions, AreOpenImageIOsListOrderedByFormatName) {
    std::map<std::string, std::string> byFormat;  // from "format:ext,ext;format:ext"
    for (const std::string& entry :
         OIIO::Strutil::splits(OIIO::get_string_attribute("extension_list"), ";"))
        byFormat[entry.substr(0, entry.find(':'))] = entry.substr(entry.find(':') + 1) + ",";
    std::string expected;
    for (const auto& [format, extensions] : byFormat)
        expected += extensions;
    EXPECT_EQ(OIIO::Strutil::join(ip::getSupportedImageExtensions(), ",") + ",", expected);
}

}  // namespace
