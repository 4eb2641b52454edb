// Files and memory into Images: real files of several layouts written by OpenImageIO, the failure
// lines, sizes that a header or a caller claims, and the list of extensions.

#include <OpenImageIO/strutil.h>

#include "test_support.h"

using namespace vorel::test;

namespace {

class Reading : public LibraryTest {};

TEST_F(Reading, EveryLayoutReadsAsOneWholeReadInTheFilesOwnType) {
    // 301 rows: several bands, and a multiple of no band, tile or strip. The digests are those of
    // one whole-image read_image of each file, checked once.
    const std::tuple<const char*, T::BASETYPE, int, int, const char*, int, int> cases[] = {
        // name, type, tile size (0: scanlines), TIFF rows per strip, compression, origin
        {"strips.tif", T::UINT16, 0, 7, "zip", 0, 0},
        {"one-strip.tif", T::UINT8, 0, 1000, "lzw", 0, 0},
        {"tiles.tif", T::FLOAT, 16, 0, "zip", 0, 0},
        {"zip.exr", T::HALF, 0, 0, "zip", 5, -9},
        {"dwab.exr", T::FLOAT, 0, 0, "dwab", 0, 0},
        {"tiles.exr", T::FLOAT, 32, 0, "piz", -3, 4},
        {"rows.png", T::UINT16, 0, 0, "", 0, 0},
        {"rows.jpg", T::UINT8, 0, 0, "", 0, 0}};
    for (const auto& [name, format, tile, rowsPerStrip, compression, x, y] : cases) {
        ip::Image source = makeGradient(83, 301, 3, format);
        source.buffer.set_origin(x, y);
        OIIO::ImageSpec spec = source.buffer.spec();
        spec.tile_width = spec.tile_height = tile;
        if (rowsPerStrip > 0)
            spec.attribute("tiff:RowsPerStrip", rowsPerStrip);
        if (*compression)
            spec.attribute("compression", compression);
        const std::string file = (temp / name).string();
        auto out = OIIO::ImageOutput::create(file);
        ASSERT_TRUE(out && out->open(file, spec) && source.buffer.write(out.get()) && out->close());
        const ip::Image read = ip::readImage(file);
        EXPECT_EQ(read.buffer.storage(), OIIO::ImageBuf::LOCALBUFFER);
        const ip::ImageSpec size = ip::getImageSpec(file);
        row(fmt::format("{} of {}x{}", name, size.width, size.height), describe(read));
    }
}

TEST_F(Reading, MissingAndCutFilesFailWithTheirOneLine) {
    const std::string missing = (temp / "missing.png").string(), cut = (temp / "cut.png").string();
    row("missing", describe(ip::readImage(missing)));
    row("  its width", std::to_string(ip::getImageSpec(missing).width));
    // A cut file opens, and the bands read before the cut are dropped with the rest; the text is
    // what a whole read leaves in OpenImageIO's global error (here none).
    writeWithOIIO(makeGradient(64, 400, 4, T::UINT8).buffer, cut);
    fs::resize_file(cut, fs::file_size(cut) / 2);
    row("cut", describe(ip::readImage(cut)));
    row("  its height", std::to_string(ip::getImageSpec(cut).height));
}

TEST_F(Reading, ClaimedSizesFailBeforeTheyAreAllocated) {
    // Uncompressed 67 x 37 OpenEXR files whose headers claim more, with offset tables to match.
    // 262661 x 15105 of four halves: 31.7 GB, under OpenImageIO's default limit of 32 GB.
    const fs::path claiming = temp / "claiming.exr", noColumns = temp / "no-columns.dpx";
    fs::copy_file(fs::path(VOREL_TEST_FILES) / "claims-262661x15105.exr", claiming);
    row("claiming 31.7 GB: its width", std::to_string(ip::getImageSpec(claiming).width));
    {
        const auto limit = scopedLimit("limits:imagesize_MB", 1024);
        row("  read under a limit of 1 GB", describe(ip::readImage(claiming)));
        row("  as an asset", describe(ip::getImageFromAssetPath(claiming.string())));
    }
    // Found by the fuzzer: a DPX header of no columns and 2^30 rows, of which OpenImageIO's
    // ImageBuf would make a column of 8 GB.
    fs::copy_file(fs::path(VOREL_FUZZ_REPRODUCERS) / "zero-width-huge-height.dpx", noColumns);
    row("no columns", describe(ip::readImage(noColumns)));
}

TEST_F(Reading, WithoutALimitAClaimThatCantBeAllocatedIsAFailedRead) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer ends the process on a failed allocation";
#endif
    // 2^26 x 2^14 pixels of four halves: 8 TB, which OpenImageIO fails to allocate.
    const auto none = scopedLimit("limits:imagesize_MB", 0);
    fs::copy_file(fs::path(VOREL_TEST_FILES) / "claims-67108864x16384.exr", temp / "huge.exr");
    row("8 TB", describe(ip::readImage(temp / "huge.exr")));
}

TEST_F(Reading, CreateImageFromDataCopiesOrFailsWithItsLine) {
    std::vector<std::uint16_t> data{1, 2, 3, 4, 5, 6, 65535, 0, 7, 8, 9, 10};
    const ip::Image image = ip::createImageFromData(data.data(), 2, 2, 3, T::UINT16);
    std::fill(data.begin(), data.end(), 0);
    row("2x2 of 3 UINT16, a copy", describe(image));
    // The whole text of each failure: our reason, then set_pixels's on a buffer without memory
    // (OpenImageIO 2.4 would crash on a null source: not called).
    const auto limit = scopedLimit("limits:imagesize_MB", 1024),
               channels = scopedLimit("limits:channels", 16);
    std::vector<float> source(16, 0.5f);
    const auto create = [&source](bool null, int width, int height, int channels, T format) {
        return describe(ip::createImageFromData(null ? nullptr : source.data(), width, height,
                                                channels, format));
    };
    row("null", create(true, 4, 4, 3, T::FLOAT));
    row("null of 0x0", create(true, 0, 0, 3, T::FLOAT));
    row("unknown type", create(false, 4, 4, 3, T()));
    row("2 GB", create(false, 65536, 32768, 1, T::UINT8));
    row("2^62 pixels of 16 floats", create(false, 2147483647, 2147483647, 16, T::FLOAT));
    row("negative width", create(false, -4, 4, 1, T::FLOAT));
    row("16 channels", create(false, 1, 1, 16, T::FLOAT));
    row("17 channels", create(false, 1, 1, 17, T::FLOAT));
}

/// A few damaged files of every reader family the library writes, and the fuzzer's finds: each
/// reading entry point gives a whole image (of getImageSpec's size) and no line, or the empty
/// Image and its one line. The broad search stays with the fuzzer; this set is its regression.
TEST_F(Reading, DamagedFilesGiveAWholeImageOrTheirOneLine) {
    const auto limit = scopedLimit("limits:imagesize_MB", 64),
               channels = scopedLimit("limits:channels", 64);
    std::vector<fs::path> files(fs::directory_iterator(VOREL_FUZZ_REPRODUCERS), {});
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
        for (const auto& [name, content] : damaged)
            std::ofstream(files.emplace_back(temp / name), std::ios::binary) << content;
    }
    // No line when the call gave its result, else exactly one at `level` matching `pattern`.
    const auto oneLineUnless = [this](bool gave, level_enum level, const std::string& pattern) {
        const auto logged = records();
        clearLog();
        EXPECT_TRUE(gave ? logged.empty()
                         : logged.size() == 1 && logged[0].level == level &&
                               std::regex_search(logged[0].message, std::regex(pattern)))
            << (logged.empty() ? "no line" : logged[0].message);
    };
    int read = 0;
    for (const fs::path& path : files) {
        SCOPED_TRACE(path.filename().string());
        const std::string file = path.string();
        clearLog();
        const ip::ImageSpec size = ip::getImageSpec(path);
        // Some readers open a damaged header as an image of no pixels, which is no failure.
        oneLineUnless(records().empty() || size.width > 0 || size.height > 0, err,
                      "^Couldn't open image " + file + ":\n");
        const ip::Image image = ip::readImage(path);
        read += image.buffer.initialized();
        EXPECT_TRUE(!image.buffer.initialized() || (image.buffer.spec().width == size.width &&
                                                    image.buffer.spec().height == size.height));
        oneLineUnless(image.buffer.initialized(), warn, "^Couldn't read image " + file + ":\n");
        const ip::Image asset = ip::getImageFromAssetPath(file);
        EXPECT_TRUE(!asset.buffer.initialized() || asset.buffer.spec().format == T::UINT8);
        oneLineUnless(asset.buffer.initialized(), err,
                      "^(Failed to open image " + file + "|Reading of image " + file +
                          " failed|Couldn't create image:\n)");
    }
    EXPECT_TRUE(read > 10 && read < int(files.size()) - 30) << read << " of " << files.size();
}

TEST_F(Reading, ReadBackTellsAWrittenFileFromACutOneWithoutLeavingAnError) {
    ip::Image bytes = makeGradient(70, 40, 3, T::UINT8), halves = makeGradient(70, 40, 4, T::HALF);
    ip::setColorSpace(bytes, "sRGB");
    ip::setColorSpace(halves, "linear");
    ASSERT_TRUE(ip::writeImage(bytes, temp / "flat.png") && ip::makeTexture(bytes, temp / "a.tx") &&
                ip::writeImage(halves, temp / "b.exr"));
    // A texture's size varies from run to run (OpenImageIO 2.4.7 compresses tile padding that it
    // never clears), and so does the offset of its directories.
    const auto readBack = [this](const fs::path& file) {
        const ip::ReadBack found = ip::readBackImageFile(file);
        const std::string text = fmt::format("{} {} '{}' {}", found.channels, found.format,
                                             found.colorSpace, found.error);
        return std::regex_replace(std::regex_replace(text, std::regex(temp.string()), "TMP"),
                                  std::regex("offset [0-9]+"), "offset N");
    };
    // A texture is read at its smallest level, a flat file in its last rows: a file cut anywhere
    // fails there, also where its header (or a TIFF's first levels) is whole.
    clearLog();
    for (const std::string name : {"flat.png", "a.tx", "b.exr"}) {
        row(name, readBack(temp / name));
        const fs::path cut = temp / ("cut-" + name);
        for (int sixteenths = 1; sixteenths < 16; ++sixteenths) {
            fs::copy_file(temp / name, cut, fs::copy_options::overwrite_existing);
            fs::resize_file(cut, fs::file_size(temp / name) * sixteenths / 16);
            EXPECT_NE(ip::readBackImageFile(cut).error, "") << name << " " << sixteenths;
        }
        row("  cut", readBack(cut));
    }
    // Cut between two MIP levels, a TIFF reads whole as a shorter chain, as one written so.
    const std::string chain = (temp / "chain.tx").string();
    const auto out = OIIO::ImageOutput::create(chain);
    for (const int size : {8, 4}) {
        const OIIO::ImageBuf level = makeGradient(size, size, 1, T::UINT8).buffer;
        OIIO::ImageSpec spec = level.spec();
        spec.tile_width = spec.tile_height = 16;
        spec.attribute("textureformat", "Plain Texture");  // its subimages are MIP levels
        const auto mode = size == 8 ? OIIO::ImageOutput::Create : OIIO::ImageOutput::AppendSubimage;
        ASSERT_TRUE(out->open(chain, spec, mode) && level.write(out.get()));
    }
    out->close();
    row("2 of 4 levels", readBack(chain));
    row("missing", readBack(temp / "missing.png"));
    EXPECT_EQ(OIIO::geterror(), "");
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
