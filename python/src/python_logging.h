#pragma once

// The library's log lines in Python's logging.

#include <pybind11/pybind11.h>

namespace vorel::usd::image_processing::python {

/// Name of the Python logger that receives the library's messages.
inline constexpr const char* kPythonLoggerName = "vorel_usd_image_processing";

/// Makes spdlog's default logger forward every message to the Python logger above, with the
/// level mapped, unless the host process has already put a default logger of its own in place
/// (then its logging is left alone). The bridge is taken down again when the interpreter exits.
/// Returns whether the bridge is now installed.
bool installLoggingBridge();

}  // namespace vorel::usd::image_processing::python
