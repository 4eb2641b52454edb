// Writer calls that would take the process down inside OpenImageIO 2.4.7 if made as they stand.
// Each runs in a child process that checks the promised result and log itself and exits 0 only
// when they hold: a crash, a wrong result or a wrong message all fail the test in the parent.

#include <cstdlib>
#include <iostream>
#include <sstream>

#include "test_support.h"

namespace fs = std::filesystem;
namespace ip = vorel::usd::image_processing;
using vorel::test::LogCapture;
using vorel::test::makeGradient;
using vorel::test::TempDir;

namespace {

/// Collects what a child found wrong; its exit code is 0 only when nothing was.
class ChildChecks {
public:
    void expect(bool holds, const std::string& what) {
        if (!holds) {
            problems_ << what << '\n';
        }
    }
    int exitCode() const {
        std::cerr << problems_.str();
        return problems_.str().empty() ? 0 : 1;
    }

private:
    std::ostringstream problems_;
};

int subimageCount(const fs::path& file) {
    const auto in = OIIO::ImageInput::open(file.string());
    int count = 0;
    while (in && in->seek_subimage(count, 0)) {
        ++count;
    }
    return count;
}

/// Frames of 64x64 up to `index`, where the frame is `width` x `height`: refused like a frame the
/// writer refuses, with the frames before it in the file.
int refusedGifFrame(int width, int height, size_t index) {
    LogCapture log;
    const TempDir temp;
    std::vector<ip::Image> frames(index, makeGradient(64, 64, 3));
    frames.push_back(makeGradient(width, height, 3));
    frames.push_back(makeGradient(64, 64, 3));
    const fs::path file = temp / "anim.gif";

    ChildChecks checks;
    checks.expect(!ip::writeAnimatedGif(frames, file, 10.0f), "the call returned true");
    checks.expect(log.records().empty(), "something was logged");
    const std::string expected = "gif writer can't take a " + std::to_string(width) + "x" +
                                 std::to_string(height) + " frame after a 64x64 first frame";
    const std::string message = frames[index].buffer.geterror();
    checks.expect(message == expected, "the frame holds '" + message + "'");
    checks.expect(!frames[0].buffer.has_error() && !frames.back().buffer.has_error(),
                  "another frame holds an error");
    checks.expect(subimageCount(file) == static_cast<int>(index), "frames before it are missing");
    return checks.exitCode();
}

/// Empty lists to a writer whose multi-subimage open has no answer for 0 subimages.
int refusedEmptyDeclaration(const std::string& name, const std::string& format) {
    LogCapture log;
    const TempDir temp;
    ChildChecks checks;
    checks.expect(!ip::writeMultiPartEXR({}, {}, temp / name), "the call returned true");
    const auto records = log.records();
    checks.expect(records.size() == 1, "not exactly one message");
    if (!records.empty()) {
        checks.expect(records[0].level == spdlog::level::err, "not at err");
        checks.expect(
            records[0].message == "fail to open " + format + " writer can't take 0 subimages",
            "message '" + records[0].message + "'");
    }
    checks.expect(!fs::exists(temp / name), "a file was created");
    return checks.exitCode();
}

class WritingGuardsDeathTest : public ::testing::Test {
protected:
    // A fresh process for each child: OpenImageIO may already run threads in this one.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(WritingGuardsDeathTest, GifFrameOfAnotherSizeIsRefusedLikeTheWriterRefuses) {
    // Larger frames overrun the GIF writer's frame store; smaller ones come back reshaped.
    EXPECT_EXIT(std::exit(refusedGifFrame(65, 64, 1)), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(std::exit(refusedGifFrame(256, 256, 2)), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(std::exit(refusedGifFrame(32, 64, 1)), ::testing::ExitedWithCode(0), "");
}

TEST_F(WritingGuardsDeathTest, EmptyMultiPartListsFailToOpenOnWritersWithoutAnAnswerForZero) {
    EXPECT_EXIT(std::exit(refusedEmptyDeclaration("none.png", "png")), ::testing::ExitedWithCode(0),
                "");
    EXPECT_EXIT(std::exit(refusedEmptyDeclaration("none.TIF", "tiff")),
                ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(std::exit(refusedEmptyDeclaration("none.jpg", "jpeg")),
                ::testing::ExitedWithCode(0), "");
}

// The frame guard is the GIF writer's only: other writers take frames of any size.
TEST(WritingGuards, OtherWritersKeepFramesOfDifferentSizes) {
    const LogCapture log;
    const TempDir temp;
    const std::vector<ip::Image> frames{makeGradient(8, 6, 3), makeGradient(4, 3, 3)};
    ASSERT_TRUE(ip::writeAnimatedGif(frames, temp / "pages.tif", 10.0f));
    const auto in = OIIO::ImageInput::open((temp / "pages.tif").string());
    ASSERT_TRUE(in);
    ASSERT_TRUE(in->seek_subimage(1, 0));
    EXPECT_EQ(in->spec().width, 4);
    EXPECT_EQ(in->spec().height, 3);
}

}  // namespace
