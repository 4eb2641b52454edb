#pragma once

#include <utility>

#include <spdlog/spdlog.h>

namespace vorel::base {

/// Every message carries the library's name in `funcname`, never the calling function: hosts
/// filter and route by it.
inline constexpr const char* kLogFunctionName = "vorel_usd_image_processing";

/// Logs one message through the host's default logger. The logger is fetched anew for every
/// message, so a host may replace it at any time; no logger, sink, pattern or level of our own
/// exists. Use it through VOREL_LOG so that file and line are those of the call.
template <typename... Args>
void logMessage(const char* file, int line, spdlog::level::level_enum level,
                spdlog::format_string_t<Args...> format, Args&&... args) {
    spdlog::default_logger_raw()->log(spdlog::source_loc{file, line, kLogFunctionName}, level,
                                      format, std::forward<Args>(args)...);
}

}  // namespace vorel::base

/// VOREL_LOG(err, "Couldn't read image {}:\n{}", fileName, text): `levelName` is the bare spdlog
/// level name (debug, warn, err).
#define VOREL_LOG(levelName, ...) \
    ::vorel::base::logMessage(__FILE__, __LINE__, ::spdlog::level::levelName, __VA_ARGS__)
