// A C++ host that set up its own spdlog default logger and then imports the module: the module
// must leave that logger in place, and the library's messages must keep arriving there.

#include <cstdio>
#include <sstream>

#include <pybind11/embed.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

int main() {
    std::ostringstream lines;
    const auto host = std::make_shared<spdlog::logger>(
        "host", std::make_shared<spdlog::sinks::ostream_sink_mt>(lines));
    spdlog::set_default_logger(host);
    {
        pybind11::scoped_interpreter interpreter;
        pybind11::exec(
            "import vorel_usd_image_processing as vip\n"
            "assert not vip.readImage('/nonexistent/host.png')\n");
    }
    if (spdlog::default_logger() == host && lines.str().find("[warning] [") != std::string::npos &&
        lines.str().find("] Couldn't read image /nonexistent/host.png:\n") != std::string::npos)
        return 0;
    std::fprintf(stderr, "the host's logger was bypassed; it holds:\n%s", lines.str().c_str());
    return 1;
}
