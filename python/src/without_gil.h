#pragma once

// Running library calls with the GIL released, so that other Python threads go on meanwhile.

#include <type_traits>
#include <utility>

#include <pybind11/pybind11.h>

namespace vorel::usd::image_processing::python {

/// Runs `function()` with the GIL released and returns its result. Unlike
/// py::gil_scoped_release, the GIL is taken back outside any destructor: a daemon thread that
/// comes back while the interpreter is finalising is ended by unwinding its stack, and that
/// unwind must not start in a (noexcept) destructor, where it would abort the whole process.
template <typename Function>
auto callWithoutGil(Function&& function) {
    using Result = std::invoke_result_t<Function>;
    PyThreadState* const state = PyEval_SaveThread();
    if constexpr (std::is_void_v<Result>) {
        try {
            function();
        } catch (...) {
            PyEval_RestoreThread(state);
            throw;
        }
        PyEval_RestoreThread(state);
    } else {
        Result result{};
        try {
            result = function();
        } catch (...) {
            PyEval_RestoreThread(state);
            throw;
        }
        PyEval_RestoreThread(state);
        return result;
    }
}

/// `function` as a callable that runs it through callWithoutGil, for binding as it is.
template <typename Result, typename... Args>
auto withoutGil(Result (*function)(Args...)) {
    return [function](Args... args) -> Result {
        return callWithoutGil([&] { return function(std::forward<Args>(args)...); });
    };
}

}  // namespace vorel::usd::image_processing::python
