// normalize against the straightforward per-pixel walk it replaced (kept below as the reference):
// the same bytes, spec and debug line for every pixel type, selection and data window.

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

#include <OpenImageIO/half.h>
#include <OpenImageIO/imagebufalgo.h>
#include <fmt/format.h>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;

namespace {

struct Reference {
    OIIO::ImageBuf pixels;
    std::string message;
};

/// The former normalize after the channel lookup: every sample as the stored integer or through
/// ConstIterator<Stored, float>, one std::vector and one setpixel per pixel, one thread.
template <typename Stored>
Reference referenceNormalize(const ip::Image& image, float targetMin, float targetMax,
                             const std::vector<int>& selection) {
    const OIIO::ImageSpec& spec = image.buffer.spec();
    Reference out{OIIO::ImageBuf(spec, OIIO::InitializePixels::Yes), ""};
    float min = std::numeric_limits<float>::infinity();
    float max = -std::numeric_limits<float>::infinity();
    const auto selects = [&](int c) {
        return std::find(selection.begin(), selection.end(), c) != selection.end();
    };
    const auto remap = [&](float v) {
        const float a = v - min, b = targetMax - targetMin, c = a * b, d = max - min;
        return c / d + targetMin;
    };
    const auto write = [&](int x, int y, auto&& sample) {
        std::vector<float> pixel(spec.nchannels, 0.0f);
        for (int c = 0; c < spec.nchannels; ++c) {
            pixel[c] = selects(c) ? remap(sample(c)) : sample(c);
        }
        out.pixels.setpixel(x, y, 0, pixel.data(), spec.nchannels);
    };
    if (std::is_same<Stored, std::uint32_t>::value) {
        // getPixelUIntValue at every (x, y, 0, c) from (0, 0); inside the data window the same
        // integers come from one get_pixels call (one call per sample takes minutes).
        std::vector<std::uint32_t> ints(spec.image_pixels() * spec.nchannels);
        image.buffer.get_pixels(image.buffer.roi(), OIIO::TypeDesc::UINT32, ints.data());
        const auto raw = [&](int x, int y, int c) {
            const int i = x - spec.x, j = y - spec.y;
            if (i < 0 || i >= spec.width || j < 0 || j >= spec.height) {
                return static_cast<float>(ip::getPixelUIntValue(image, x, y, 0, c));
            }
            return static_cast<float>(ints[(size_t(j) * spec.width + i) * spec.nchannels + c]);
        };
        for (const int c : selection)
            for (int y = 0; y < spec.height; ++y)
                for (int x = 0; x < spec.width; ++x) {
                    min = std::min(min, raw(x, y, c));
                    max = std::max(max, raw(x, y, c));
                }
        out.message = fmt::format("Normalizing int buffer with min : {} max : {}", min, max);
        for (int y = 0; y < spec.height; ++y)
            for (int x = 0; x < spec.width; ++x)
                write(x, y, [&](int c) { return raw(x, y, c); });
        return out;
    }
    const auto stats = OIIO::ImageBufAlgo::computePixelStats(image.buffer, {}, 0);
    for (const int c : selection) {
        min = std::min(min, stats.min[c]);
        max = std::max(max, stats.max[c]);
    }
    out.message = fmt::format("Normalizing float buffer with min : {} max : {}", min, max);
    for (OIIO::ImageBuf::ConstIterator<Stored, float> it(image.buffer); !it.done(); ++it)
        write(it.x(), it.y(), [&](int c) { return it[c]; });
    return out;
}

/// Random samples over the type's whole range (integers) or around [-2, 3] with a NaN, both
/// infinities and a negative zero (floating point).
ip::Image randomImage(OIIO::TypeDesc type, const OIIO::ImageSpec& shape, unsigned seed) {
    OIIO::ImageSpec spec = shape;
    spec.set_format(type);
    ip::Image image;
    image.buffer.reset(spec);
    std::mt19937 random(seed);
    const size_t samples = spec.image_pixels() * spec.nchannels;
    if (type.is_floating_point()) {
        std::uniform_real_distribution<float> value(-2.0f, 3.0f);
        std::vector<float> floats(samples);
        for (float& f : floats)
            f = value(random);
        const float inf = std::numeric_limits<float>::infinity();
        const float special[] = {std::numeric_limits<float>::quiet_NaN(), inf, -inf, -0.0f};
        for (size_t i = 0; i < 4 && i < samples; ++i)
            floats[5 + 7 * i] = special[i];
        image.buffer.set_pixels(image.buffer.roi(), OIIO::TypeDesc::FLOAT, floats.data());
    } else {
        auto* bytes = static_cast<unsigned char*>(image.buffer.localpixels());
        for (size_t i = 0; i < spec.image_bytes(); ++i)
            bytes[i] = random() & 0xff;
    }
    image.properties = {{"take", "3"}};
    return image;
}

::testing::AssertionResult sameBytes(const OIIO::ImageBuf& a, const OIIO::ImageBuf& b) {
    if (a.spec().serialize(OIIO::ImageSpec::SerialText) !=
        b.spec().serialize(OIIO::ImageSpec::SerialText)) {
        return ::testing::AssertionFailure() << "specs differ";
    }
    if (std::memcmp(a.localpixels(), b.localpixels(), a.spec().image_bytes()) != 0) {
        return ::testing::AssertionFailure() << "pixels differ";
    }
    return ::testing::AssertionSuccess();
}

class NormalizeExact : public vorel::test::LibraryTest {};

template <typename Stored>
void compareAll(vorel::test::LogCapture& log, const ip::Image& image) {
    struct Selection {
        std::vector<std::string> names;
        std::vector<int> indices;
    };
    const Selection selections[] = {{{}, {0, 1, 2}}, {{"A", "R", "A"}, {3, 0, 3}}, {{"G"}, {1}}};
    const std::pair<float, float> targets[] = {{0.0f, 1.0f}, {5.0f, 2.0f}, {-3.0f, 7.5f}};
    for (const Selection& selection : selections) {
        for (const auto& [low, high] : targets) {
            SCOPED_TRACE(fmt::format("{} at {},{} onto [{}, {}] by [{}]",
                                     image.buffer.spec().format, image.buffer.spec().x,
                                     image.buffer.spec().y, low, high,
                                     fmt::join(selection.indices, " ")));
            log.clear();
            const ip::Image result = ip::normalize(image, low, high, selection.names);
            const Reference expected =
                referenceNormalize<Stored>(image, low, high, selection.indices);
            EXPECT_TRUE(sameBytes(result.buffer, expected.pixels));
            EXPECT_FALSE(result.buffer.has_error());
            EXPECT_EQ(result.properties, image.properties);
            const auto records = log.records();
            ASSERT_EQ(records.size(), 1u);
            EXPECT_EQ(records[0].level, spdlog::level::debug);
            EXPECT_EQ(records[0].message, expected.message);
        }
    }
}

template <typename Stored>
void compareShapes(vorel::test::LogCapture& log, OIIO::TypeDesc type, unsigned seed) {
    OIIO::ImageSpec shape(301, 67, 4, type);  // more rows than one thread's share
    compareAll<Stored>(log, randomImage(type, shape, seed));
    // Shifted data windows: both paths address pixels their own way around an origin. Smaller,
    // as the reference reads each sample outside the window with its own call.
    shape.width = 97;
    shape.height = 41;
    shape.x = 3;
    shape.y = -2;
    compareAll<Stored>(log, randomImage(type, shape, seed + 1));
    shape.height = 5;
    shape.x = -400;
    compareAll<Stored>(log, randomImage(type, shape, seed + 2));
}

TEST_F(NormalizeExact, EveryPixelTypeMatchesThePerPixelWalk) {
    compareShapes<std::uint8_t>(log, OIIO::TypeDesc::UINT8, 10);
    compareShapes<std::uint16_t>(log, OIIO::TypeDesc::UINT16, 20);
    compareShapes<half>(log, OIIO::TypeDesc::HALF, 30);
    compareShapes<float>(log, OIIO::TypeDesc::FLOAT, 40);
    compareShapes<std::uint32_t>(log, OIIO::TypeDesc::UINT32, 50);
    compareShapes<std::int32_t>(log, OIIO::TypeDesc::INT32, 60);
    compareShapes<std::int8_t>(log, OIIO::TypeDesc::INT8, 70);
    compareShapes<std::int16_t>(log, OIIO::TypeDesc::INT16, 80);
    compareShapes<double>(log, OIIO::TypeDesc::DOUBLE, 90);

    // All selected samples equal: the range is empty and every selected sample becomes NaN.
    std::vector<std::uint32_t> flat(4 * 5 * 4, 7u);
    ip::Image same = randomImage(OIIO::TypeDesc::UINT32, OIIO::ImageSpec(5, 4, 4), 1);
    same.buffer.set_pixels(same.buffer.roi(), OIIO::TypeDesc::UINT32, flat.data());
    compareAll<std::uint32_t>(log, same);
}

}  // namespace
