// Calls that would take the process down inside OpenImageIO 2.4.7 must end in the library's
// ordinary failure result instead. Each runs in a child process that has to exit normally.

#include <cstdlib>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LogCapture;
using vorel::test::makeGradient;

namespace {

/// Runs `check` in a child process: the child exits 0 when it returns true and 1 otherwise; a
/// crash shows as a signal and fails the expectation.
template <typename Check>
void expectSurvives(Check check) {
    EXPECT_EXIT(std::exit(check() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

bool onlyError(LogCapture& log, const std::string& prefix) {
    const auto records = log.records();
    return records.size() == 1 && records[0].level == spdlog::level::err &&
           records[0].message.rfind(prefix, 0) == 0;
}

TEST(OpenImageIOGuards, ChannelBeyondTheImageFailsGetPixelUIntValue) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const int channels : {1, 4}) {
        expectSurvives([channels] {
            LogCapture log;
            const ip::Image image = makeGradient(3, 3, channels, OIIO::TypeDesc::UINT32);
            return ip::getPixelUIntValue(image, 1, 1, 0, channels) == 0u &&
                   onlyError(log, "get_pixels failed");
        });
    }
}

TEST(OpenImageIOGuards, NullDataFailsCreateImageFromData) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    for (const int size : {0, 4}) {
        expectSurvives([size] {
            LogCapture log;
            const ip::Image image =
                ip::createImageFromData(nullptr, size, size, 3, OIIO::TypeDesc::FLOAT);
            return !image.buffer.initialized() && onlyError(log, "Couldn't create image:\n") &&
                   log.records()[0].message.size() > std::string("Couldn't create image:\n").size();
        });
    }
}

TEST(OpenImageIOGuards, CopyAssignmentIntoAMovedFromImage) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    expectSurvives([] {
        ip::Image source = makeGradient(5, 4, 3);
        source.properties["kept"] = "yes";
        ip::Image movedFrom = makeGradient(2, 2, 1);
        const ip::Image taken(std::move(movedFrom));
        movedFrom = source;
        return vorel::test::sameImage(movedFrom.buffer, source.buffer) &&
               movedFrom.properties == source.properties;
    });
}

}  // namespace
