#pragma once

// What every test file shares: a fixture that captures spdlog's default logger into reference
// rows or checks, a temporary folder, a host's limit for a scope, and small image builders.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include <OpenImageIO/imagebufalgo.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <vorel/usd/image_processing/image_processing.h>

namespace vorel::test {

namespace fs = std::filesystem;
namespace ip = usd::image_processing;
using T = OIIO::TypeDesc;
using spdlog::level::debug;
using spdlog::level::err;
using spdlog::level::level_enum;
using spdlog::level::warn;

struct LogRecord {
    level_enum level;
    std::string message, funcname, filename;
};

/// Keeps every line of the logger it is given, at every level.
struct LogSink final : spdlog::sinks::base_sink<std::mutex> {
    std::vector<LogRecord> records;
    void sink_it_(const spdlog::details::log_msg& m) override {
        const auto text = [](const char* s) { return std::string(s ? s : ""); };
        records.push_back({m.level, std::string(m.payload.begin(), m.payload.end()),
                           text(m.source.funcname), text(m.source.filename)});
    }
    void flush_() override {}
    /// The lines kept so far, and none kept any more when `clear`.
    std::vector<LogRecord> copy(bool clear) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return clear ? std::exchange(records, {}) : records;
    }
};

/// Sets one of OpenImageIO's global limits as a host would; the host's value is back when the
/// returned handle goes.
inline std::shared_ptr<void> scopedLimit(const char* name, int value) {
    const int previous = OIIO::get_int_attribute(name);
    OIIO::attribute(name, value);
    return std::shared_ptr<void>(nullptr, [=](void*) { OIIO::attribute(name, previous); });
}

/// Base fixture: spdlog's default logger swapped for a capture, as a host might swap loggers,
/// and a fresh temp folder, both undone at the end.
class LibraryTest : public ::testing::Test {
protected:
    LibraryTest() {
        spdlog::set_default_logger(std::make_shared<spdlog::logger>("capture", sink_));
        spdlog::set_level(spdlog::level::trace);
        std::filesystem::create_directories(temp);
    }
    ~LibraryTest() override {
        spdlog::set_default_logger(previous_);
        std::error_code ignored;
        std::filesystem::remove_all(temp, ignored);
    }
    std::vector<LogRecord> records() { return sink_->copy(false); }
    void clearLog() { sink_->copy(true); }

    void expectNoWarnings() {
        for (const auto& record : records())
            EXPECT_LT(record.level, warn) << record.message;
    }

    /// A test as OpenImageIO writes its own: rows of calls, each printed as a label, what it
    /// gave and every line it logged, compared at the end with tests/ref/<test name>.txt. A
    /// change is a diff to read; VOREL_UPDATE_REFS=1 writes the new text there instead.
    void row(const std::string& label, const std::string& result) {
        out_ += label + " -> " + result + "\n";
        for (const LogRecord& record : sink_->copy(true)) {
            // Where the temp folder is and how long a write took vary from run to run.
            const std::string stable = std::regex_replace(
                std::regex_replace(record.message, std::regex(temp.string()), "TMP"),
                std::regex("took: [0-9.e+-]+ms"), "took: ...ms");
            out_ += fmt::format("  {}: {}\n", spdlog::level::to_string_view(record.level), stable);
            // Every line names the library and a source file by its path in the project.
            EXPECT_EQ(record.funcname, "vorel_usd_image_processing") << record.message;
            EXPECT_TRUE(std::regex_match(record.filename, std::regex("(base|usd)/[^ ]+\\.(cpp|h)")))
                << record.filename;
        }
    }
    void row(const std::string& label, bool result) {
        row(label, std::string(result ? "true" : "false"));
    }
    void TearDown() override {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        const auto file =
            std::filesystem::path(VOREL_TEST_REFS) / (test->name() + std::string(".txt"));
        if (out_.empty())
            return;
        if (std::getenv("VOREL_UPDATE_REFS") != nullptr) {
            std::ofstream(file) << out_;
            return;
        }
        std::ifstream in(file);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), out_) << file;
    }

    const std::shared_ptr<LogSink> sink_ = std::make_shared<LogSink>();
    const std::shared_ptr<spdlog::logger> previous_ = spdlog::default_logger();
    const std::filesystem::path temp = std::filesystem::temp_directory_path() /
                                       ("vorel_test_" + std::to_string(std::random_device()()));

private:
    std::string out_;
};

/// width x height pixels of `channels` channels of `format`: sample (x, y, c) is n = (x + width *
/// y) * channels + c + 1 (n counts the samples from 1), times `scale` for floating-point types and
/// modulo the type's range for integer ones (given as normalised floats that land on exact codes),
/// so neighbours differ.
inline ip::Image makeGradient(int width, int height, int channels,
                              OIIO::TypeDesc format = OIIO::TypeDesc::FLOAT, float scale = 0.001f) {
    ip::Image image;
    image.buffer.reset(OIIO::ImageSpec(width, height, channels, format));
    const double range = format.is_floating_point() ? 0.0 : std::pow(2.0, 8.0 * format.size());
    std::vector<float> samples(size_t(width) * height * channels);
    for (size_t n = 1; n <= samples.size(); ++n)
        samples[n - 1] = range == 0.0 ? float(n * scale) : float(std::fmod(n, range) / (range - 1));
    image.buffer.set_pixels(image.buffer.roi(), OIIO::TypeDesc::FLOAT, samples.data());
    return image;
}

/// Writes `buffer` through OpenImageIO itself, not through the library.
inline void writeWithOIIO(const OIIO::ImageBuf& buffer, const std::filesystem::path& path) {
    ASSERT_TRUE(buffer.write(path.string())) << buffer.geterror();
}

/// Every sample of the data window in the buffer's own type, pixel after pixel.
template <typename V>
std::string samplesOf(const OIIO::ImageBuf& buffer) {
    std::vector<V> values(buffer.spec().image_pixels() * buffer.nchannels());
    buffer.get_pixels(buffer.roi(), OIIO::BaseTypeFromC<V>::value, values.data());
    return fmt::format(std::is_integral_v<V> ? "{}" : "{:.9g}", fmt::join(values, " "));
}

/// FNV-1a of `bytes`: exact pixels in a short text.
inline std::string digestOf(const std::vector<unsigned char>& bytes) {
    std::uint64_t digest = 14695981039346656037ull;
    for (const unsigned char byte : bytes)
        digest = (digest ^ byte) * 1099511628211ull;
    return fmt::format("{:016x}", digest);
}

/// The digest of the data window's samples in the buffer's own type.
inline std::string digestOf(const OIIO::ImageBuf& buffer) {
    std::vector<unsigned char> bytes(buffer.spec().image_bytes());
    buffer.get_pixels(buffer.roi(), buffer.spec().format, bytes.data());
    return digestOf(bytes);
}

/// An Image in one line: "empty", or size, origin, type, channel names, colour-space tag and
/// scalar samples (up to 96 of them, else their bytes' FNV-1a digest: exact either way), then
/// its properties.
inline std::string describe(const ip::Image& image) {
    std::string text = "empty";
    if (const OIIO::ImageBuf& b = image.buffer; b.initialized()) {
        const OIIO::ImageSpec& spec = b.spec();
        text = fmt::format("{}x{}{:+}{:+} {} [{}] '{}': ", spec.width, spec.height, spec.x, spec.y,
                           spec.format.c_str(), fmt::join(spec.channelnames, ","),
                           spec.get_string_attribute("oiio:ColorSpace"));
        const size_t samples = spec.image_pixels() * spec.nchannels;
        const auto base = T::BASETYPE(spec.format.basetype);
        text += spec.format.basevalues() != 1 ? std::string("...")
                : samples > 96      ? fmt::format("{} samples, digest {}", samples, digestOf(b))
                : base == T::UINT8  ? samplesOf<std::uint8_t>(b)
                : base == T::UINT16 ? samplesOf<std::uint16_t>(b)
                : base == T::UINT32 ? samplesOf<std::uint32_t>(b)
                : base == T::INT32  ? samplesOf<std::int32_t>(b)
                                    : samplesOf<float>(b);
    }
    for (const auto& [name, value] : image.properties)
        text += fmt::format(" {}={}", name, value);
    return text;
}

}  // namespace vorel::test
