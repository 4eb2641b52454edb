// An example host: how a pipeline tool links vorel_usd_image_processing, sets up its own
// logger and takes one image on the road from file to file.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;

namespace {

struct Options {
    std::vector<std::string> inputs;
    bool verbose = false;
};

void printUsage() {
    std::puts(
        "usage: vorel_image_tool [options] [input ...]\n"
        "  Reads each input and prints its size, channels, pixel type and colour space.\n"
        "  Without an input it first makes a sample image, vorel_sample.exr.\n"
        "options:\n"
        "  -v, --verbose            show the library's debug messages\n"
        "  -h, --help               this text");
}

bool parseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            printUsage();
            std::exit(0);
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "unknown option %s\n", arg.c_str());
            return false;
        } else {
            options.inputs.push_back(arg);
        }
    }
    return true;
}

/// A 256x256 linear RGBA sample: colour ramps and a soft disc in alpha.
std::string makeSampleImage() {
    const int size = 256;
    std::vector<float> pixels(size * size * 4);
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            float* pixel = &pixels[(y * size + x) * 4];
            const float u = x / float(size - 1);
            const float v = y / float(size - 1);
            const float r = std::hypot(u - 0.5f, v - 0.5f);
            pixel[0] = u;
            pixel[1] = v;
            pixel[2] = 1.0f - u;
            pixel[3] = std::clamp((0.45f - r) * 20.0f, 0.0f, 1.0f);
        }
    }
    ip::Image sample = ip::createImageFromData(pixels.data(), size, size, 4, OIIO::TypeDesc::FLOAT);
    ip::setColorSpace(sample, "linear");
    const std::string path = "vorel_sample.exr";
    if (!sample.buffer.write(path)) {
        spdlog::error("could not write the sample image {}", path);
        std::exit(1);
    }
    spdlog::info("made sample image {}", path);
    return path;
}

void printInfo(const std::string& path, const ip::Image& image) {
    const std::string colorSpace = ip::getColorSpace(image);
    std::printf("%s: %d x %d, %d channels, %s, colour space '%s'\n", path.c_str(),
                image.buffer.spec().width, image.buffer.spec().height, ip::getNumChannels(image),
                image.buffer.spec().format.c_str(), colorSpace.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseOptions(argc, argv, options)) {
        printUsage();
        return 2;
    }
    // The host owns logging: the library writes to whatever default logger is set up here.
    auto console = spdlog::stdout_color_mt("host");
    console->set_pattern("[%H:%M:%S] [%^%l%$] [%!] %v");
    console->set_level(options.verbose ? spdlog::level::debug : spdlog::level::info);
    spdlog::set_default_logger(console);

    if (options.inputs.empty()) {
        options.inputs.push_back(makeSampleImage());
    }
    int failures = 0;
    for (const std::string& input : options.inputs) {
        const ip::Image image = ip::readImage(input);
        if (!image.buffer.initialized()) {
            ++failures;
            continue;
        }
        printInfo(input, image);
    }
    return failures == 0 ? 0 : 1;
}
