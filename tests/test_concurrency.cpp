// A mixed workload on 8 threads, several of them reading one shared const Image at once, gives
// exactly what the same work gives on one thread.

#include <thread>

#include <OpenImageIO/imagebufalgo.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using vorel::test::LibraryTest;
using vorel::test::makeGradient;
using vorel::test::sameImage;

namespace {

/// Everything one job produces, for comparison with the single-threaded run.
struct Outcome {
    ip::Image read;
    ip::Image resized;
    ip::Image converted;
    ip::Image inverted;
    ip::Image normalized;
    ip::Image composite;
    ip::MetadataMap metadata;
    ip::Image writtenBack;
};

Outcome work(const ip::Image& shared, const std::filesystem::path& source,
             const std::filesystem::path& target) {
    Outcome outcome;
    outcome.read = ip::readImage(source);
    outcome.resized = ip::resize(shared, OIIO::ROI(0, 32, 0, 24));
    outcome.converted = ip::colorConvert(shared, "linear", "sRGB");
    outcome.inverted = ip::invertChannel(shared, "B");
    outcome.normalized = ip::normalize(shared, 0.0f, 1.0f, {});
    outcome.composite = ip::over(shared, outcome.inverted, OIIO::ROI());
    ip::Image tagged = outcome.resized;
    ip::addMetadataToImage(tagged, {{"job", std::string(target.filename().string())}});
    outcome.metadata = ip::getMetadataFromImage(tagged);
    ip::writeImage(outcome.converted, target, 6);
    outcome.writtenBack = ip::readImage(target);
    return outcome;
}

void expectSame(const Outcome& a, const Outcome& b) {
    EXPECT_TRUE(sameImage(a.read.buffer, b.read.buffer));
    EXPECT_TRUE(sameImage(a.resized.buffer, b.resized.buffer));
    EXPECT_TRUE(sameImage(a.converted.buffer, b.converted.buffer));
    EXPECT_TRUE(sameImage(a.inverted.buffer, b.inverted.buffer));
    EXPECT_TRUE(sameImage(a.normalized.buffer, b.normalized.buffer));
    EXPECT_TRUE(sameImage(a.composite.buffer, b.composite.buffer));
    EXPECT_EQ(a.metadata.size(), b.metadata.size());
    EXPECT_TRUE(a.writtenBack.buffer.initialized());
    EXPECT_EQ(OIIO::ImageBufAlgo::compare(a.writtenBack.buffer, b.writtenBack.buffer, 0, 0).nfail,
              0u);
}

class Concurrency : public LibraryTest {};

TEST_F(Concurrency, EightThreadsMatchOneThread) {
    ip::Image shared = makeGradient(64, 48, 4, OIIO::TypeDesc::FLOAT, 0.0003f);
    ip::setColorSpace(shared, "linear");
    const std::filesystem::path source = temp / "source.exr";
    ASSERT_TRUE(ip::writeImage(shared, source, -1));
    const ip::Image& readOnly = shared;

    const Outcome reference = work(readOnly, source, temp / "reference.png");
    ASSERT_TRUE(reference.normalized.buffer.initialized());

    constexpr int kThreads = 8;
    constexpr int kRounds = 4;
    std::vector<std::vector<Outcome>> outcomes(kThreads);
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
        for (const Outcome& outcome : outcomes[t]) {
            SCOPED_TRACE("thread " + std::to_string(t));
            expectSame(outcome, reference);
        }
    }
    expectNoWarnings();
}

}  // namespace
