// A mixed workload on 8 threads, all reading one shared const Image at once, gives exactly what
// the same work gives on one thread (and gives ThreadSanitizer something to look at).

#include "test_support.h"

using namespace vorel::test;

namespace {

class Concurrency : public LibraryTest {};

TEST_F(Concurrency, EightThreadsMatchOneThread) {
    ip::Image shared = makeGradient(64, 48, 4, T::FLOAT, 0.0003f);
    ip::setColorSpace(shared, "linear");
    ASSERT_TRUE(ip::writeImage(shared, temp / "source.exr", -1));
    // Each result of the road in a line: its description and how many metadata it carries.
    const auto work = [&, &shared = std::as_const(shared)](const std::string& name) {
        ip::Image tagged = ip::resize(shared, OIIO::ROI(0, 32, 0, 24));
        ip::addMetadataToImage(tagged, {{"job", 7}, {"name", "shared"}});
        const ip::Image converted = ip::colorConvert(shared, "linear", "sRGB"),
                        inverted = ip::invertChannel(shared, "B");
        ip::writeImage(converted, temp / name, 6);
        std::string lines;
        for (const ip::Image& image :
             {ip::readImage(temp / "source.exr"), tagged, converted, inverted,
              ip::normalize(shared, 0, 1), ip::over(shared, inverted), ip::readImage(temp / name)})
            lines +=
                fmt::format("{} {}\n", describe(image), ip::getMetadataFromImage(image).size());
        return lines;
    };
    const std::string reference = work("reference.png");
    ASSERT_EQ(reference.find("empty"), std::string::npos) << reference;
    std::vector<std::string> outcomes(8 * 4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (size_t i = t; i < outcomes.size(); i += 8)
                outcomes[i] = work(std::to_string(i) + ".png");
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& outcome : outcomes)
        EXPECT_EQ(outcome, reference);
    expectNoWarnings();
}

}  // namespace
