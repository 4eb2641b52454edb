#include "python_logging.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>

#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "without_gil.h"

namespace vorel::usd::image_processing::python {

namespace {

namespace py = pybind11;

/// Python's number for a level (logging.DEBUG is 10 ... logging.CRITICAL 50); spdlog's trace
/// goes just below DEBUG.
int pythonLevel(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::trace:
            return 5;
        case spdlog::level::debug:
            return 10;
        case spdlog::level::info:
            return 20;
        case spdlog::level::warn:
            return 30;
        case spdlog::level::err:
            return 40;
        case spdlog::level::critical:
            return 50;
        default:
            return 0;
    }
}

py::object optionalText(const char* text) {
    return text != nullptr ? py::object(py::str(text)) : py::object(py::none());
}

/// Hands each message to Python's logging as a record carrying the C++ file, line and function.
/// The GIL serialises the sink, so it has no mutex of its own: a mutex taken before the GIL could
/// deadlock against a thread that logs while holding the GIL.
class PythonLoggingSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    /// Called at interpreter exit, with the GIL held: no message reaches Python after it returns.
    /// Threads already on their way in are let through first, with the GIL released, because a
    /// thread that asks for the GIL once finalisation has begun is ended on the spot, in the
    /// middle of our frames.
    void stop() {
        active_ = false;
        callWithoutGil([this] {
            while (entering_ != 0) {
                std::this_thread::yield();
            }
        });
    }

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        const EntryCount entry(entering_);
        if (!active_ || Py_IsInitialized() == 0) {
            return;
        }
        py::gil_scoped_acquire gil;
        try {
            forward(message);
        } catch (py::error_already_set& error) {
            error.discard_as_unraisable(kPythonLoggerName);
        }
    }
    void flush_() override {}

private:
    /// Counts a thread inside sink_it_ for as long as it is there.
    class EntryCount {
    public:
        explicit EntryCount(std::atomic<int>& count) : count_(count) { ++count_; }
        ~EntryCount() { --count_; }
        EntryCount(const EntryCount&) = delete;
        EntryCount& operator=(const EntryCount&) = delete;

    private:
        std::atomic<int>& count_;
    };

    static void forward(const spdlog::details::log_msg& message) {
        const py::object logger =
            py::module_::import("logging").attr("getLogger")(kPythonLoggerName);
        const int level = pythonLevel(message.level);
        if (!logger.attr("isEnabledFor")(level).cast<bool>()) {
            return;
        }
        const std::string text(message.payload.data(), message.payload.size());
        const py::object record = logger.attr("makeRecord")(
            logger.attr("name"), level, optionalText(message.source.filename), message.source.line,
            text, py::tuple(), py::none(), optionalText(message.source.funcname));
        logger.attr("handle")(record);
    }

    std::atomic<bool> active_{true};
    std::atomic<int> entering_{0};
};

/// What the bridge replaced and what it installed. Both loggers live as long as the process, so a
/// thread that fetched the default logger just before a swap still logs into a live object.
struct Bridge {
    std::shared_ptr<spdlog::logger> previous;
    std::shared_ptr<PythonLoggingSink> sink;
    std::shared_ptr<spdlog::logger> logger;
};

/// Never destroyed: daemon threads may still be inside the library while the process runs its
/// static destructors, and the loggers they reach must outlive them. A union member's destructor
/// runs only when called.
Bridge& bridge() {
    union Immortal {
        Bridge value;
        Immortal() : value() {}
        ~Immortal() {}
    };
    static Immortal instance;
    return instance.value;
}

/// spdlog starts with an unnamed logger writing to one colour console sink; anything else is a
/// logger that the host set up.
bool isSpdlogsInitialLogger(const spdlog::logger& logger) {
    const auto& sinks = logger.sinks();
    return logger.name().empty() && sinks.size() == 1 &&
           typeid(*sinks.front()) == typeid(spdlog::sinks::ansicolor_stdout_sink_mt);
}

void uninstallLoggingBridge() {
    Bridge& state = bridge();
    state.sink->stop();
    if (spdlog::default_logger_raw() == state.logger.get()) {
        spdlog::set_default_logger(state.previous);
    }
}

}  // namespace

bool installLoggingBridge() {
    Bridge& state = bridge();
    const std::shared_ptr<spdlog::logger> current = spdlog::default_logger();
    if (state.logger && current == state.logger) {
        return true;
    }
    if (!current || !isSpdlogsInitialLogger(*current)) {
        return false;
    }
    state.previous = current;
    state.sink = std::make_shared<PythonLoggingSink>();
    state.logger =
        std::make_shared<spdlog::logger>("vorel_usd_image_processing.python", state.sink);
    // Python's logging decides what is kept.
    state.logger->set_level(spdlog::level::trace);
    spdlog::set_default_logger(state.logger);
    py::module_::import("atexit").attr("register")(py::cpp_function(&uninstallLoggingBridge));
    return true;
}

}  // namespace vorel::usd::image_processing::python
