// A mixed workload on 8 threads, several of them reading one shared const Image at once, gives
// exactly what the same work gives on one thread.

#include <thread>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using namespace vorel::test;

namespace {

/// Everything one job produces, for comparison with the single-threaded run.
std::vector<ip::Image> work(const ip::Image& shared, const std::filesystem::path& source,
                            const std::filesystem::path& target) {
    ip::Image tagged = ip::resize(shared, OIIO::ROI(0, 32, 0, 24));
    ip::addMetadataToImage(tagged, {{"job", 7}, {"name", "shared"}});
    const ip::Image converted = ip::colorConvert(shared, "linear", "sRGB"),
                    inverted = ip::invertChannel(shared, "B");
    ip::writeImage(converted, target, 6);
    return {ip::readImage(source),
            tagged,
            converted,
            inverted,
            ip::normalize(shared, 0, 1, {}),
            ip::over(shared, inverted, OIIO::ROI()),
            ip::readImage(target)};
}

class Concurrency : public LibraryTest {};

TEST_F(Concurrency, EightThreadsMatchOneThread) {
    ip::Image shared = makeGradient(64, 48, 4, OIIO::TypeDesc::FLOAT, 0.0003f);
    ip::setColorSpace(shared, "linear");
    const std::filesystem::path source = temp / "source.exr";
    ASSERT_TRUE(ip::writeImage(shared, source, -1));
    const ip::Image& readOnly = shared;

    const std::vector<ip::Image> reference = work(readOnly, source, temp / "reference.png");
    for (const ip::Image& image : reference)
        ASSERT_TRUE(image.buffer.initialized());

    constexpr int kThreads = 8;
    constexpr int kRounds = 4;
    std::vector<std::vector<std::vector<ip::Image>>> outcomes(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                const auto target =
                    temp / ("out_" + std::to_string(t) + "_" + std::to_string(round) + ".png");
                outcomes[t].push_back(work(readOnly, source, target));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        for (const std::vector<ip::Image>& outcome : outcomes[t]) {
            for (size_t i = 0; i < reference.size(); ++i)
                EXPECT_TRUE(sameImage(outcome[i].buffer, reference[i].buffer)) << t << ", " << i;
        }
    }
    expectNoWarnings();
}

}  // namespace
