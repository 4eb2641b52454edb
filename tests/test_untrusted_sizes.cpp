// Sizes that a file header or a caller claims: refused as the ordinary failure with its one log
// line, before anything of that size is allocated or copied.

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
namespace fs = std::filesystem;
using T = OIIO::TypeDesc;

namespace {

/// An uncompressed 67 x 37 OpenEXR file whose header then claims `width` x `height` pixels of
/// four half channels, with an offset table grown to match so that OpenEXR opens it.
fs::path exrClaiming(const fs::path& folder, int width, int height) {
    OIIO::ImageSpec spec(67, 37, 4, T::HALF);
    spec.attribute("compression", "none");
    const fs::path valid = folder / "valid.exr";
    vorel::test::writeWithOIIO(OIIO::ImageBuf(spec), valid);
    std::ifstream in(valid, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), {}};
    // dataWindow: xmin, ymin, xmax, ymax after the name, the type name and the size.
    const std::string key("dataWindow\0box2i\0", 17);
    const size_t window = bytes.find(key) + key.size() + 4;
    const std::int32_t last[] = {width - 1, height - 1};
    std::memcpy(&bytes[window + 8], last, sizeof last);
    // 37 chunks of y, size and a row of 67 x 4 halves follow the table of 37 offsets.
    const size_t table = bytes.size() - 37 * (4 + 4 + 67 * 8) - 37 * 8;
    bytes.insert(table + 37 * 8, std::string(size_t(height - 37) * 8, '\0'));
    const fs::path claiming = folder / "claiming.exr";
    std::ofstream(claiming, std::ios::binary).write(bytes.data(), bytes.size());
    return claiming;
}

class UntrustedSizes : public vorel::test::LibraryTest {
protected:
    /// The one line at `level`, starting with `prefix` and containing `reason`; then clears it.
    void expectFailureLine(spdlog::level::level_enum level, const std::string& prefix,
                           const std::string& reason) {
        const auto records = log.atLeast(spdlog::level::warn);
        ASSERT_EQ(records.size(), 1u) << prefix;
        EXPECT_EQ(records[0].level, level);
        EXPECT_EQ(records[0].message.rfind(prefix, 0), 0u) << records[0].message;
        EXPECT_NE(records[0].message.find(reason), std::string::npos) << records[0].message;
        log.clear();
    }
};

TEST_F(UntrustedSizes, ReadImageFailsOnPixelMemoryThatAFileClaims) {
    // 262661 x 15105: 31.7 GB, under OpenImageIO's default limit of 32 GB.
    const fs::path claiming = exrClaiming(temp.path(), 262661, 15105);
    const std::string prefix = "Couldn't read image " + claiming.string() + ":\n";
    EXPECT_EQ(ip::getImageSpec(claiming).width, 262661);
    {
        const vorel::test::ScopedLimit limit("limits:imagesize_MB", 1024);
        EXPECT_FALSE(ip::readImage(claiming).buffer.initialized());
        expectFailureLine(spdlog::level::warn, prefix,
                          "30270 MB of pixel data exceed the limit of 1024 MB");
        EXPECT_FALSE(ip::getImageFromAssetPath(claiming.string()).buffer.initialized());
        expectFailureLine(spdlog::level::err, "Couldn't create image:\n",
                          "exceed the limit of 1024 MB");
    }
    // Found by the fuzzer: a DPX header of no columns and 2^30 rows. The claim is of no pixels,
    // but OpenImageIO's ImageBuf makes a column of it: 8 GB allocated before the read fails.
    const fs::path noColumns = fs::path(VOREL_FUZZ_REPRODUCERS) / "zero-width-huge-height.dpx";
    EXPECT_FALSE(ip::readImage(noColumns).buffer.initialized());
    expectFailureLine(spdlog::level::warn, "Couldn't read image " + noColumns.string() + ":\n",
                      "the image claims 0x1073807360x1 pixels");
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer ends the process on a failed allocation
    // With no limit at all, 8 TB that OpenImageIO can't allocate: its own text.
    const vorel::test::ScopedLimit none("limits:imagesize_MB", 0);
    EXPECT_FALSE(ip::readImage(exrClaiming(temp.path(), 1 << 26, 1 << 14)).buffer.initialized());
    expectFailureLine(spdlog::level::warn, "Couldn't read image ",
                      "ImageBuf unable to allocate 8796093022208 bytes");
#endif
}

TEST_F(UntrustedSizes, CreateImageFromDataRefusesClaimedSizesBeforeCopying) {
    std::vector<float> small(64, 0.5f);
    const vorel::test::ScopedLimit limit("limits:imagesize_MB", 1024);
    const vorel::test::ScopedLimit channels("limits:channels", 16);
    // 2^31 samples, past what an int counts; and past size_t altogether.
    EXPECT_FALSE(
        ip::createImageFromData(small.data(), 65536, 32768, 1, T::UINT8).buffer.initialized());
    expectFailureLine(spdlog::level::err, "Couldn't create image:\n",
                      "2048 MB of pixel data exceed the limit of 1024 MB (limits:imagesize_MB)");
    EXPECT_FALSE(ip::createImageFromData(small.data(), 2147483647, 2147483647, 16, T::FLOAT)
                     .buffer.initialized());
    expectFailureLine(
        spdlog::level::err, "Couldn't create image:\n",
        "2147483647x2147483647x1 pixels of 16 channels of float can't be represented");
    EXPECT_FALSE(ip::createImageFromData(small.data(), -4, 4, 1, T::FLOAT).buffer.initialized());
    expectFailureLine(spdlog::level::err, "Couldn't create image:\n", "can't be represented");
    EXPECT_FALSE(ip::createImageFromData(small.data(), 1, 1, 17, T::FLOAT).buffer.initialized());
    expectFailureLine(spdlog::level::err, "Couldn't create image:\n",
                      "17 channels exceed the limit of 16 (limits:channels)");
    // Within the limits the copy is made as before.
    EXPECT_TRUE(ip::createImageFromData(small.data(), 4, 4, 4, T::FLOAT).buffer.initialized());
    expectNoWarnings();
}

TEST_F(UntrustedSizes, IdFunctionsRefuseSpecsClaimingMoreThanMemoryHolds) {
    // A small caller buffer under a spec that then claims far more, as specmod() allows: the
    // checks must refuse before a sample is touched.
    std::vector<std::int32_t> ids{-1, 0, 5, 7};
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(2, 2, 1, T::INT32), ids.data());
    OIIO::ImageSpec& spec = image.buffer.specmod();
    spec.width = spec.height = 1 << 30;  // 2^64 samples of 16 channels: no size_t holds them
    spec.nchannels = 16;
    EXPECT_FALSE(ip::convertIdImageToUint(image));
    expectOnlyMessage(spdlog::level::err, "Can't modify image with non-local pixels");
    EXPECT_EQ(image.buffer.spec().format, T(T::INT32));
    EXPECT_EQ(ids, (std::vector<std::int32_t>{-1, 0, 5, 7}));
    log.clear();
    // (2^31 - 1)^2 pixels: an int product wraps to 1, the mask's 16 EB exceed any limit.
    spec.width = spec.height = 2147483647;
    spec.nchannels = 1;
    ip::idImageToMask(image);
    expectOnlyMessage(spdlog::level::err, "Can't modify image with non-local pixels");
    EXPECT_EQ(image.buffer.spec().width, 2147483647);
    EXPECT_EQ(ids, (std::vector<std::int32_t>{-1, 0, 5, 7}));
}

}  // namespace
