// A mixed workload on 8 threads, all reading one shared const Image at once, gives exactly what
// the same work gives on one thread (and gives ThreadSanitizer something to look at).

#include <thread>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
using namespace vorel::test;

namespace {

class Concurrency : public LibraryTest {};

TEST_F(Concurrency, EightThreadsMatchOneThread) {
    ip::Image shared = makeGradient(64, 48, 4, OIIO::TypeDesc::FLOAT, 0.0003f);
    ip::setColorSpace(shared, "linear");
    ASSERT_TRUE(ip::writeImage(shared, temp / "source.exr", -1));
    const auto work = [&, &shared = std::as_const(shared)](const std::string& name) {
        ip::Image tagged = ip::resize(shared, OIIO::ROI(0, 32, 0, 24));
        ip::addMetadataToImage(tagged, {{"job", 7}, {"name", "shared"}});
        const ip::Image converted = ip::colorConvert(shared, "linear", "sRGB"),
                        inverted = ip::invertChannel(shared, "B");
        ip::writeImage(converted, temp / name, 6);
        return std::vector{ip::readImage(temp / "source.exr"),
                           tagged,
                           converted,
                           inverted,
                           ip::normalize(shared, 0, 1),
                           ip::over(shared, inverted),
                           ip::readImage(temp / name)};
    };
    const std::vector<ip::Image> reference = work("reference.png");
    std::vector<std::vector<ip::Image>> outcomes(8 * 4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = t * 4; i < t * 4 + 4; ++i)
                outcomes[i] = work(std::to_string(i) + ".png");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (size_t i = 0; i < reference.size(); ++i) {
        ASSERT_TRUE(reference[i].buffer.initialized()) << i;
        for (const std::vector<ip::Image>& outcome : outcomes)
            EXPECT_TRUE(sameImage(outcome[i].buffer, reference[i].buffer)) << i;
    }
    expectNoWarnings();
}

}  // namespace
