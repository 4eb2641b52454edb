// An example host: how a pipeline tool links vorel_usd_image_processing, sets up its own
// logger and takes images on the road from file to file: read, operate, convert for the
// target's extension, write.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;

namespace {

struct Operation {
    std::string name;
    std::string argument;
};

struct Options {
    std::vector<std::string> inputs;
    std::vector<Operation> operations;
    std::string output;
    int pngCompression = -1;
    bool texture = false;
    std::string gif;
    float fps = 10.0f;
    std::string exrLayers;
    bool metadata = false;
    bool asset = false;
    bool verbose = false;
};

const char* const kUsage =
    "usage: vorel_image_tool [options] [input ...]\n"
    "  Reads each input (or, without one, a sample image it makes first: vorel_sample.exr),\n"
    "  prints what it is, runs the operations in order, and writes the result.\n"
    "options:\n"
    "  -o, --output PATH        convert for PATH's extension (sRGB for png/jpg/..., linear for\n"
    "                           exr/tif) and write there; one input only\n"
    "  --png-compression N      PNG compression level for --output\n"
    "  --texture                write --output as a tiled, MIP-mapped texture (.tx, .exr, .tif)\n"
    "                           with maketx's defaults\n"
    "  --op NAME[=ARGS]         an operation, repeatable, applied in order:\n"
    "                             fit=WxH  resize=WxH  cut=X,Y,W,H  rotate=RADIANS\n"
    "                             flatten=R,G,B,A  add-alpha=A  premult  unpremult\n"
    "                             invert  invert-channel=NAME  shuffle=C,C,...\n"
    "                             normalize=MIN,MAX  color-convert=FROM,TO  tag=COLORSPACE\n"
    "                             over=FILE  paste=FILE,X,Y  channel-append=FILE  id-mask\n"
    "  --gif PATH               write all inputs as the frames of an animated GIF\n"
    "  --fps N                  frame rate for --gif (default 10)\n"
    "  --exr-layers PATH        write all inputs as one multi-part EXR, one layer per input\n"
    "  --metadata               print each input's metadata as a table\n"
    "  --asset                  load inputs as USD asset paths through Hio, not OpenImageIO\n"
    "  -v, --verbose            show the library's debug messages\n"
    "  -h, --help               this text\n";

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::vector<float> floats(const std::string& text) {
    std::vector<float> values;
    for (const std::string& part : split(text, ',')) {
        values.push_back(std::stof(part));
    }
    return values;
}

std::vector<int> ints(const std::string& text, char separator = ',') {
    std::vector<int> values;
    for (const std::string& part : split(text, separator)) {
        values.push_back(std::stoi(part));
    }
    return values;
}

/// The region 0..W x 0..H of "WxH".
OIIO::ROI sizeRegion(const std::string& text) {
    const std::vector<int> size = ints(text, 'x');
    if (size.size() != 2) {
        throw std::invalid_argument("expected WxH, got " + text);
    }
    return OIIO::ROI(0, size[0], 0, size[1]);
}

bool parseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                throw std::invalid_argument(arg + " needs a value");
            }
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (arg == "-v" || arg == "--verbose") {
            options.verbose = true;
        } else if (arg == "-o" || arg == "--output") {
            options.output = value();
        } else if (arg == "--png-compression") {
            options.pngCompression = std::stoi(value());
        } else if (arg == "--texture") {
            options.texture = true;
        } else if (arg == "--op") {
            const std::string op = value();
            const auto equals = op.find('=');
            options.operations.push_back(
                {op.substr(0, equals), equals == std::string::npos ? "" : op.substr(equals + 1)});
        } else if (arg == "--gif") {
            options.gif = value();
        } else if (arg == "--fps") {
            options.fps = std::stof(value());
        } else if (arg == "--exr-layers") {
            options.exrLayers = value();
        } else if (arg == "--metadata") {
            options.metadata = true;
        } else if (arg == "--asset") {
            options.asset = true;
        } else if (!arg.empty() && arg[0] == '-') {
            throw std::invalid_argument("unknown option " + arg);
        } else {
            options.inputs.push_back(arg);
        }
    }
    if (!options.output.empty() && options.inputs.size() > 1) {
        throw std::invalid_argument("--output takes one input; use --gif or --exr-layers for more");
    }
    return true;
}

/// A 256x256 linear RGBA sample: colour ramps, and a soft disc in alpha.
std::string makeSampleImage() {
    const int size = 256;
    std::vector<float> pixels(size * size * 4);
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            float* pixel = &pixels[(y * size + x) * 4];
            const float u = x / float(size - 1);
            const float v = y / float(size - 1);
            const float alpha =
                std::clamp((0.45f - std::hypot(u - 0.5f, v - 0.5f)) * 20.0f, 0.0f, 1.0f);
            // Premultiplied, as OpenEXR stores colour.
            pixel[0] = u * alpha;
            pixel[1] = v * alpha;
            pixel[2] = (1.0f - u) * alpha;
            pixel[3] = alpha;
        }
    }
    ip::Image sample = ip::createImageFromData(pixels.data(), size, size, 4, OIIO::TypeDesc::FLOAT);
    ip::setColorSpace(sample, "linear");
    const std::string path = "vorel_sample.exr";
    if (!ip::writeImage(sample, path, -1)) {
        std::exit(1);
    }
    spdlog::info("made sample image {}", path);
    return path;
}

std::string describe(const ip::MetadataValue& value) {
    struct Describer {
        std::string operator()(const std::string& text) const { return text; }
        std::string operator()(int number) const { return std::to_string(number); }
        std::string operator()(float number) const { return fmt::format("{}", number); }
        std::string operator()(const std::vector<int>& numbers) const {
            return fmt::format("[{}]", fmt::join(numbers, ", "));
        }
        std::string operator()(const std::vector<float>& numbers) const {
            return fmt::format("[{}]", fmt::join(numbers, ", "));
        }
    };
    return std::visit(Describer{}, value);
}

void printMetadata(const ip::Image& image) {
    static const char* const kTypeNames[] = {"string", "int", "float", "int[]", "float[]"};
    const ip::MetadataMap metadata = ip::getMetadataFromImage(image);
    std::map<std::string, ip::MetadataValue> sorted(metadata.begin(), metadata.end());
    std::printf("  %-32s %-8s %s\n", "name", "type", "value");
    for (const auto& [name, value] : sorted) {
        std::printf("  %-32s %-8s %s\n", name.c_str(), kTypeNames[value.index()],
                    describe(value).c_str());
    }
}

void printInfo(const std::string& path, const ip::Image& image) {
    const OIIO::ImageSpec& spec = image.buffer.spec();
    std::printf("%s: %d x %d, %d channels, %s, colour space '%s'\n", path.c_str(), spec.width,
                spec.height, ip::getNumChannels(image), spec.format.c_str(),
                ip::getColorSpace(image).c_str());
}

ip::Image load(const std::string& path, bool asset) {
    return asset ? ip::getImageFromAssetPath(path) : ip::readImage(path);
}

/// Runs one operation; returns the empty Image when it failed (the library has logged why).
ip::Image apply(const Operation& op, ip::Image image) {
    const std::string& a = op.argument;
    if (op.name == "fit") {
        return ip::fit(image, sizeRegion(a));
    }
    if (op.name == "resize") {
        return ip::resize(image, sizeRegion(a));
    }
    if (op.name == "cut") {
        const std::vector<int> r = ints(a);
        return ip::cut(image, OIIO::ROI(r.at(0), r.at(0) + r.at(2), r.at(1), r.at(1) + r.at(3)));
    }
    if (op.name == "rotate") {
        return ip::rotate(image, std::stof(a), true);
    }
    if (op.name == "flatten") {
        if (ip::getNumChannels(image) == 3) {
            ip::addAlphaChannel(image, 1.0f);
        }
        ip::compositeOverBackgroundColor(image, floats(a));
        return image;
    }
    if (op.name == "add-alpha") {
        return ip::addAlphaChannel(image, std::stof(a)) ? image : ip::Image{};
    }
    if (op.name == "premult" || op.name == "unpremult") {
        return ip::preMultiply(
            image, op.name == "premult" ? ip::PreMultMode::Premult : ip::PreMultMode::Unpremult);
    }
    if (op.name == "invert") {
        return ip::invert(image, OIIO::ROI());
    }
    if (op.name == "invert-channel") {
        return ip::invertChannel(image, a);
    }
    if (op.name == "shuffle") {
        const std::vector<int> order = ints(a);
        return ip::shuffle(image, static_cast<int>(order.size()), order);
    }
    if (op.name == "normalize") {
        const std::vector<float> range = floats(a.empty() ? "0,1" : a);
        return ip::normalize(image, range.at(0), range.at(1), {});
    }
    if (op.name == "color-convert") {
        const std::vector<std::string> names = split(a, ',');
        return ip::colorConvert(image, names.at(0), names.at(1));
    }
    if (op.name == "tag") {
        // Relabels only: the pixels stay, but --output's conversion now starts from this name.
        ip::setColorSpace(image, a);
        return image;
    }
    if (op.name == "over") {
        return ip::over(image, ip::readImage(a), OIIO::ROI());
    }
    if (op.name == "paste") {
        const std::vector<std::string> parts = split(a, ',');
        const ip::Image source = ip::readImage(parts.at(0));
        return ip::paste(image, std::stoi(parts.at(1)), std::stoi(parts.at(2)), source, OIIO::ROI())
                   ? image
                   : ip::Image{};
    }
    if (op.name == "channel-append") {
        return ip::channelAppend(image, ip::readImage(a), OIIO::ROI());
    }
    if (op.name == "id-mask") {
        ip::idImageToMask(image);
        return image;
    }
    throw std::invalid_argument("unknown operation " + op.name);
}

std::string layerName(const std::string& path) {
    return std::filesystem::path(path).stem().string();
}

int run(const Options& options) {
    std::vector<std::string> inputs = options.inputs;
    if (inputs.empty()) {
        inputs.push_back(makeSampleImage());
    }
    std::vector<ip::Image> results;
    for (const std::string& input : inputs) {
        ip::Image image = load(input, options.asset);
        if (!image.buffer.initialized()) {
            return 1;
        }
        printInfo(input, image);
        if (options.metadata) {
            printMetadata(image);
        }
        for (const Operation& op : options.operations) {
            image = apply(op, std::move(image));
            if (!image.buffer.initialized()) {
                spdlog::error("operation {} failed on {}", op.name, input);
                return 1;
            }
            printInfo("  after " + op.name, image);
        }
        results.push_back(std::move(image));
    }

    bool written = true;
    if (!options.output.empty()) {
        ip::Image& image = results.front();
        ip::colorConvertByFormat(image, options.output);
        if (options.texture) {
            written = ip::makeTexture(image, options.output);
            if (written) {  // the header only: a texture is read by a renderer, level by level
                const ip::ImageSpec size = ip::getImageSpec(options.output);
                std::printf("%s: %d x %d texture\n", options.output.c_str(), size.width,
                            size.height);
            }
        } else {
            written = ip::writeImage(image, options.output, options.pngCompression);
            if (written) {
                printInfo(options.output, ip::readImage(options.output));
            }
        }
    }
    if (!options.gif.empty()) {
        written = ip::writeAnimatedGif(results, options.gif, options.fps) && written;
    }
    if (!options.exrLayers.empty()) {
        // Layer names must be unique in a multi-part EXR: a repeated input gets its index.
        std::vector<std::string> names;
        for (size_t i = 0; i < inputs.size(); ++i) {
            const std::string stem = layerName(inputs[i]);
            const bool repeated = std::count(inputs.begin(), inputs.end(), inputs[i]) > 1;
            names.push_back(repeated ? stem + "_" + std::to_string(i) : stem);
        }
        written = ip::writeMultiPartEXR(names, results, options.exrLayers) && written;
    }
    return written ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    // The host owns logging: the library writes to whatever default logger is set up here.
    auto console = spdlog::stdout_color_mt("host");
    console->set_pattern("[%^%l%$] [%!] %v");
    spdlog::set_default_logger(console);

    Options options;
    try {
        parseOptions(argc, argv, options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vorel_image_tool: %s\n%s", error.what(), kUsage);
        return 2;
    }
    console->set_level(options.verbose ? spdlog::level::debug : spdlog::level::info);
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vorel_image_tool: %s\n", error.what());
        return 2;
    }
}
