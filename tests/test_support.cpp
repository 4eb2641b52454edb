#include "test_support.h"

#include <atomic>
#include <cmath>
#include <random>

#include <OpenImageIO/imagebufalgo.h>

namespace vorel::test {

namespace fs = std::filesystem;

TempDir::TempDir() {
    static std::atomic<unsigned> counter{0};
    std::random_device random;
    path_ = fs::temp_directory_path() /
            ("vorel_test_" + std::to_string(random()) + "_" + std::to_string(counter++));
    fs::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void LibraryTest::expectOnlyMessage(spdlog::level::level_enum level, const std::string& message) {
    const auto records = log.atLeast(std::min(level, spdlog::level::warn));
    ASSERT_EQ(records.size(), 1u) << "expected exactly one message: " << message;
    EXPECT_EQ(records[0].level, level);
    EXPECT_EQ(records[0].message, message);
    EXPECT_EQ(records[0].funcname, "vorel_usd_image_processing");
}

void LibraryTest::expectNoWarnings() {
    for (const auto& record : log.atLeast(spdlog::level::warn)) {
        ADD_FAILURE() << "unexpected message: " << record.message;
    }
}

usd::image_processing::Image makeGradient(int width, int height, int channels,
                                          OIIO::TypeDesc format, float scale) {
    OIIO::ImageBuf buffer(OIIO::ImageSpec(width, height, channels, format));
    const bool isFloat = format.is_floating_point();
    const double range = isFloat ? 1.0 : std::pow(2.0, 8.0 * format.size());
    std::vector<float> pixel(channels);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < channels; ++c) {
                const double n = (x + width * y) * channels + c + 1;
                // Integer types are given as normalised floats that land on exact codes.
                pixel[c] = isFloat ? static_cast<float>(n * scale)
                                   : static_cast<float>(std::fmod(n, range) / (range - 1.0));
            }
            buffer.setpixel(x, y, pixel.data(), channels);
        }
    }
    usd::image_processing::Image image;
    image.buffer = std::move(buffer);
    return image;
}

void writeWithOIIO(const OIIO::ImageBuf& buffer, const fs::path& path) {
    ASSERT_TRUE(buffer.write(path.string())) << buffer.geterror();
}

::testing::AssertionResult sameImage(const OIIO::ImageBuf& a, const OIIO::ImageBuf& b) {
    if (a.initialized() != b.initialized()) {
        return ::testing::AssertionFailure() << "one image is empty";
    }
    if (!a.initialized()) {
        return ::testing::AssertionSuccess();
    }
    if (a.spec().serialize(OIIO::ImageSpec::SerialText, OIIO::ImageSpec::SerialDetailedHuman) !=
        b.spec().serialize(OIIO::ImageSpec::SerialText, OIIO::ImageSpec::SerialDetailedHuman)) {
        return ::testing::AssertionFailure() << "specs differ";
    }
    const auto comparison = OIIO::ImageBufAlgo::compare(a, b, 0.0f, 0.0f);
    if (comparison.nfail != 0 || comparison.error) {
        return ::testing::AssertionFailure() << comparison.nfail << " samples differ";
    }
    return ::testing::AssertionSuccess();
}

}  // namespace vorel::test
