#pragma once

// Shared test fixtures: a capturing sink on spdlog's default logger, a temporary folder, and
// small image builders.

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <vorel/usd/image_processing/image_processing.h>

namespace vorel::test {

struct LogRecord {
    spdlog::level::level_enum level;
    std::string message;
    std::string funcname;
    std::string filename;
};

/// Collects every message that reaches the default logger while it is installed.
class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    std::vector<LogRecord> records() {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        records_.push_back({msg.level, std::string(msg.payload.begin(), msg.payload.end()),
                            msg.source.funcname ? msg.source.funcname : "",
                            msg.source.filename ? msg.source.filename : ""});
    }
    void flush_() override {}

private:
    std::vector<LogRecord> records_;
};

/// Replaces the default logger with a capturing one (level trace) for the fixture's lifetime and
/// puts the previous default logger back afterwards, as a host might swap loggers.
class LogCapture {
public:
    LogCapture()
        : previous_(spdlog::default_logger()),
          sink_(std::make_shared<CaptureSink>()),
          logger_(std::make_shared<spdlog::logger>("capture", sink_)) {
        logger_->set_level(spdlog::level::trace);
        spdlog::set_default_logger(logger_);
    }
    ~LogCapture() { spdlog::set_default_logger(previous_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() { return sink_->records(); }
    /// Records at `level` or above (debug lines are usually noise for failure tests).
    std::vector<LogRecord> atLeast(spdlog::level::level_enum level) {
        std::vector<LogRecord> kept;
        for (auto& record : records()) {
            if (record.level >= level) {
                kept.push_back(record);
            }
        }
        return kept;
    }
    void clear() { sink_->clear(); }
    spdlog::logger& logger() { return *logger_; }

private:
    std::shared_ptr<spdlog::logger> previous_;
    std::shared_ptr<CaptureSink> sink_;
    std::shared_ptr<spdlog::logger> logger_;
};

/// A fresh folder below the system temp folder, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Base fixture: every test gets a log capture and a temp folder.
class LibraryTest : public ::testing::Test {
protected:
    /// Exactly one record at `level` or above, and it is `level` with `message` and our funcname.
    void expectOnlyMessage(spdlog::level::level_enum level, const std::string& message);
    /// No record at warn or above.
    void expectNoWarnings();

    LogCapture log;
    TempDir temp;
};

/// A width x height image of `channels` channels of `format`, sample (x, y, c) =
/// (x + width * y) * channels + c + 1 scaled by `scale` (for float types) or taken modulo the
/// type's range (for integer types), so every sample differs from its neighbours.
usd::image_processing::Image makeGradient(int width, int height, int channels,
                                          OIIO::TypeDesc format = OIIO::TypeDesc::FLOAT,
                                          float scale = 0.001f);

/// Writes `buffer` through OpenImageIO directly (not through the library) and fails the test if
/// that does not work.
void writeWithOIIO(const OIIO::ImageBuf& buffer, const std::filesystem::path& path);

/// Sets one of OpenImageIO's global limits as a host would, and puts the host's value back.
class ScopedLimit {
public:
    ScopedLimit(const char* name, int value)
        : name_(name), previous_(OIIO::get_int_attribute(name, 0)) {
        OIIO::attribute(name_, value);
    }
    ~ScopedLimit() { OIIO::attribute(name_, previous_); }
    ScopedLimit(const ScopedLimit&) = delete;
    ScopedLimit& operator=(const ScopedLimit&) = delete;

private:
    const char* name_;
    int previous_;
};

/// True when both images have the same spec (size, channels, format, names, attributes) and
/// the same pixels.
::testing::AssertionResult sameImage(const OIIO::ImageBuf& a, const OIIO::ImageBuf& b);

}  // namespace vorel::test
