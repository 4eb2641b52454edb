// Each library call beside the bare OpenImageIO calls that do the same work, in one run, on the
// same 3840x2160 RGBA images (UINT8 and FLOAT, and HALF and UINT32 for normalize) made in memory
// at start.
// Files go to a temporary folder that is removed at exit.
//
// Names are "<call>/<case>/<variant>": the variant "library" is our call, every other variant is
// bare OpenImageIO doing the same work; benchmarks/run_benchmarks.py pairs them into ratios.
//
// `benchmarks --read-peak <variant> <file>` is the child mode of the peak memory benchmarks: it
// reads one file in a fresh process and prints how far the resident set grew while reading.

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <OpenImageIO/half.h>
#include <OpenImageIO/imagebufalgo.h>
#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;
namespace fs = std::filesystem;
namespace IBA = OIIO::ImageBufAlgo;

namespace {

constexpr int kWidth = 3840;
constexpr int kHeight = 2160;
constexpr int kChannels = 4;
// Half size, for resize.
const OIIO::ROI kHalf(0, kWidth / 2, 0, kHeight / 2, 0, 1, 0, kChannels);

// ---------------------------------------------------------------------------------------------
// The images, made once: a smooth colour ramp with a little noise (so that compression has real
// work to do) and an alpha ramp, tagged as a host would have them.
// ---------------------------------------------------------------------------------------------

/// The pixels, in FLOAT; each typed image is a copy in its own type.
OIIO::ImageBuf makeRamp(float corner, int seed) {
    const OIIO::ImageSpec spec(kWidth, kHeight, kChannels, OIIO::TypeDesc::FLOAT);
    OIIO::ImageBuf ramp =
        IBA::fill({corner, 0.2f, 0.9f, 1.0f}, {0.9f, corner, 0.1f, 0.6f},
                  {0.1f, 0.8f, corner, 0.4f}, {0.7f, 0.3f, 0.5f, 0.2f}, OIIO::get_roi_full(spec));
    IBA::noise(ramp, "gaussian", 0.0f, 0.03f, /*mono=*/false, seed,
               OIIO::ROI(0, kWidth, 0, kHeight, 0, 1, 0, 3));
    return ramp;
}

ip::Image typed(const OIIO::ImageBuf& ramp, OIIO::TypeDesc type, const char* colorSpace) {
    ip::Image image;
    image.buffer.copy(ramp, type);
    image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
    return image;
}

struct Images {
    const OIIO::ImageBuf rampA = makeRamp(0.1f, 1);
    const OIIO::ImageBuf rampB = makeRamp(0.6f, 2);
    const ip::Image uint8A = typed(rampA, OIIO::TypeDesc::UINT8, "sRGB");
    const ip::Image uint8B = typed(rampB, OIIO::TypeDesc::UINT8, "sRGB");
    const ip::Image floatA = typed(rampA, OIIO::TypeDesc::FLOAT, "linear");
    const ip::Image floatB = typed(rampB, OIIO::TypeDesc::FLOAT, "linear");
    const ip::Image uint32 = typed(rampA, OIIO::TypeDesc::UINT32, "linear");
    const ip::Image half = typed(rampA, OIIO::TypeDesc::HALF, "linear");

    const ip::Image& byType(OIIO::TypeDesc type, bool second = false) const {
        if (type == OIIO::TypeDesc::UINT32) {
            return uint32;
        }
        if (type == OIIO::TypeDesc::HALF) {
            return half;
        }
        if (type == OIIO::TypeDesc::UINT8) {
            return second ? uint8B : uint8A;
        }
        return second ? floatB : floatA;
    }
};

const Images& images() {
    static const Images all;
    return all;
}

/// The temporary folder for every file the benchmarks write, removed at exit.
class Folder {
public:
    Folder() : path_(fs::temp_directory_path() / ("vorel_benchmarks_" + std::to_string(getpid()))) {
        fs::create_directories(path_);
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    fs::path operator/(const std::string& name) const { return path_ / name; }

private:
    fs::path path_;
};

const Folder& folder() {
    static const Folder temp;
    return temp;
}

const char* typeName(OIIO::TypeDesc type) {
    return type == OIIO::TypeDesc::UINT8    ? "uint8"
           : type == OIIO::TypeDesc::UINT32 ? "uint32"
           : type == OIIO::TypeDesc::HALF   ? "half"
                                            : "float";
}

/// The file formats: PNG, JPEG and TIFF from the UINT8 image, OpenEXR from the FLOAT one; TIFF
/// and OpenEXR also tiled, and JPEG also progressive, for the readers only.
struct FileCase {
    const char* name;
    const char* extension;
    OIIO::TypeDesc type;
    int compressionLevel;        // PNG only; -1 leaves the writer's default
    int tileSize = 0;            // 0 writes scanlines
    const char* flag = nullptr;  // an int attribute set to 1 for the writer
};
const FileCase kFileCases[] = {{"png", ".png", OIIO::TypeDesc::UINT8, 6},
                               {"exr", ".exr", OIIO::TypeDesc::FLOAT, -1},
                               {"jpeg", ".jpg", OIIO::TypeDesc::UINT8, -1},
                               {"tiff", ".tif", OIIO::TypeDesc::UINT8, -1}};
const FileCase kReadOnlyCases[] = {
    {"exr_tiled", ".exr", OIIO::TypeDesc::FLOAT, -1, 64},
    {"tiff_tiled", ".tif", OIIO::TypeDesc::UINT8, -1, 64},
    {"jpeg_progressive", ".jpg", OIIO::TypeDesc::UINT8, -1, 0, "jpeg:progressive"}};

/// Every case that is read.
std::vector<FileCase> readCases() {
    std::vector<FileCase> cases(std::begin(kFileCases), std::end(kFileCases));
    cases.insert(cases.end(), std::begin(kReadOnlyCases), std::end(kReadOnlyCases));
    return cases;
}

/// A file of the case, written once by OpenImageIO, for the readers.
const fs::path& sourceFile(const FileCase& file) {
    static std::map<std::string, fs::path> written;
    auto found = written.find(file.name);
    if (found == written.end()) {
        const fs::path path = folder() / (std::string("source_") + file.name + file.extension);
        OIIO::ImageBuf buffer = images().byType(file.type).buffer;
        if (file.tileSize > 0) {
            buffer.set_write_tiles(file.tileSize, file.tileSize);
        }
        if (file.flag != nullptr) {
            buffer.specmod().attribute(file.flag, 1);
        }
        if (!buffer.write(path.string())) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            std::exit(1);
        }
        found = written.emplace(file.name, path).first;
    }
    return found->second;
}

/// Registers a benchmark timed by the wall clock (OpenImageIO works on several threads inside one
/// call) and reported in milliseconds.
template <typename Function>
benchmark::internal::Benchmark* add(const std::string& name, Function&& function) {
    return benchmark::RegisterBenchmark(name.c_str(), std::forward<Function>(function))
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

void check(benchmark::State& state, bool ok) {
    if (!ok) {
        state.SkipWithError("the call failed");
    }
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

/// What a host writes with OpenImageIO's readers: open, an uninitialised buffer of the file's
/// spec, one read_image straight into it (what readImage did before it read in bands).
OIIO::ImageBuf bareReadImage(const std::string& name) {
    auto in = OIIO::ImageInput::open(name);
    OIIO::ImageBuf buffer(in->spec(), OIIO::InitializePixels::No);
    const OIIO::ImageSpec& spec = in->spec();
    in->read_image(0, 0, 0, spec.nchannels, spec.format, buffer.localpixels());
    in->close();
    return buffer;
}

/// What a host writes by hand: an ImageBuf on the file, forced to read all pixels into memory.
OIIO::ImageBuf bareImageBufRead(const std::string& name) {
    OIIO::ImageBuf buffer(name);
    buffer.read(0, 0, /*force=*/true);
    return buffer;
}

void registerReading() {
    for (const FileCase& file : readCases()) {
        const std::string base = std::string("read/") + file.name + "/";
        add(base + "library", [file](benchmark::State& state) {
            const fs::path& path = sourceFile(file);
            for (auto _ : state) {
                check(state, ip::readImage(path).buffer.initialized());
            }
        });
        add(base + "ImageInput", [file](benchmark::State& state) {
            const std::string name = sourceFile(file).string();
            for (auto _ : state) {
                check(state, bareReadImage(name).initialized());
            }
        });
        add(base + "ImageBuf", [file](benchmark::State& state) {
            const std::string name = sourceFile(file).string();
            for (auto _ : state) {
                check(state, bareImageBufRead(name).initialized());
            }
        });
    }
}

// ---------------------------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------------------------

/// What writeImage does, spelled out: a writer by the name, a copy of the spec with the PNG
/// level, open, write the buffer, close.
bool bareWrite(const OIIO::ImageBuf& buffer, const std::string& name, int compressionLevel) {
    auto out = OIIO::ImageOutput::create(name);
    OIIO::ImageSpec spec = buffer.spec();
    if (compressionLevel >= 0) {
        spec.attribute("png:compressionLevel", compressionLevel);
    }
    const bool ok = out && out->open(name, spec) && buffer.write(out.get());
    return out && out->close() && ok;
}

void registerWriting() {
    for (const FileCase& file : kFileCases) {
        const std::string base = std::string("write/") + file.name + "/";
        add(base + "library", [file](benchmark::State& state) {
            const ip::Image& image = images().byType(file.type);
            const fs::path path = folder() / (std::string("library") + file.extension);
            for (auto _ : state) {
                check(state, ip::writeImage(image, path, file.compressionLevel));
            }
        });
        add(base + "ImageOutput", [file](benchmark::State& state) {
            const OIIO::ImageBuf& buffer = images().byType(file.type).buffer;
            const std::string name = (folder() / (std::string("bare") + file.extension)).string();
            for (auto _ : state) {
                check(state, bareWrite(buffer, name, file.compressionLevel));
            }
        });
    }
}

// ---------------------------------------------------------------------------------------------
// Operations: the library call and the one ImageBufAlgo call it wraps
// ---------------------------------------------------------------------------------------------

using LibraryCall = std::function<ip::Image(const ip::Image&, const ip::Image&)>;
using BareCall = std::function<OIIO::ImageBuf(const OIIO::ImageBuf&, const OIIO::ImageBuf&)>;

void registerOperation(const std::string& name, OIIO::TypeDesc type, LibraryCall library,
                       BareCall bare) {
    const std::string base = name + "/" + typeName(type) + "/";
    add(base + "library", [=](benchmark::State& state) {
        const ip::Image& a = images().byType(type);
        const ip::Image& b = images().byType(type, true);
        for (auto _ : state) {
            check(state, library(a, b).buffer.initialized());
        }
    });
    add(base + "ImageBufAlgo", [=](benchmark::State& state) {
        const OIIO::ImageBuf& a = images().byType(type).buffer;
        const OIIO::ImageBuf& b = images().byType(type, true).buffer;
        for (auto _ : state) {
            const OIIO::ImageBuf result = bare(a, b);
            check(state, !result.has_error());
        }
    });
}

void registerOperations() {
    for (const OIIO::TypeDesc type : {OIIO::TypeDesc::UINT8, OIIO::TypeDesc::FLOAT}) {
        registerOperation(
            "resize", type,
            [](const ip::Image& a, const ip::Image&) { return ip::resize(a, kHalf); },
            [](const OIIO::ImageBuf& a, const OIIO::ImageBuf&) {
                return IBA::resize(a, "", 0.0f, kHalf, 0);
            });
        registerOperation(
            "colorConvert", type,
            [](const ip::Image& a, const ip::Image&) {
                return ip::colorConvert(a, "linear", "sRGB");
            },
            [](const OIIO::ImageBuf& a, const OIIO::ImageBuf&) {
                return IBA::colorconvert(a, "linear", "sRGB", true, "", "", nullptr, {}, 0);
            });
        registerOperation(
            "over", type,
            [](const ip::Image& a, const ip::Image& b) { return ip::over(a, b, OIIO::ROI()); },
            [](const OIIO::ImageBuf& a, const OIIO::ImageBuf& b) {
                return IBA::over(a, b, {}, 0);
            });
    }
}

// ---------------------------------------------------------------------------------------------
// normalize, remapping R, G and B onto [0, 1] and carrying A, against two bare passes: the
// multi-threaded one of OpenImageIO (computePixelStats, then mad on all threads) and a
// single-threaded walk with ImageBuf iterators.
// ---------------------------------------------------------------------------------------------

/// The common range of R, G and B, and the scale and offset that map it onto [0, 1].
struct Range {
    float low;
    float scale;
};

Range rgbRange(const OIIO::ImageBuf& source) {
    const IBA::PixelStats stats = IBA::computePixelStats(source, {}, 0);
    float low = stats.min[0];
    float high = stats.max[0];
    for (int c = 1; c < 3; ++c) {
        low = std::min(low, stats.min[c]);
        high = std::max(high, stats.max[c]);
    }
    return {low, 1.0f / (high - low)};
}

OIIO::ImageBuf statsAndMad(const OIIO::ImageBuf& source) {
    const Range range = rgbRange(source);
    const float scale[] = {range.scale, range.scale, range.scale, 1.0f};
    const float offset[] = {-range.low * range.scale, -range.low * range.scale,
                            -range.low * range.scale, 0.0f};
    return IBA::mad(source, OIIO::cspan<float>(scale), OIIO::cspan<float>(offset), {}, 0);
}

template <typename Stored>
OIIO::ImageBuf singleThreadedPass(const OIIO::ImageBuf& source) {
    const Range range = rgbRange(source);
    OIIO::ImageBuf result(source.spec(), OIIO::InitializePixels::No);
    OIIO::ImageBuf::ConstIterator<Stored, float> in(source);
    OIIO::ImageBuf::Iterator<Stored, float> out(result);
    for (; !in.done(); ++in, ++out) {
        for (int c = 0; c < 3; ++c) {
            out[c] = (in[c] - range.low) * range.scale;
        }
        out[3] = in[3];
    }
    return result;
}

template <typename Stored>
void registerNormalizeOf(OIIO::TypeDesc type) {
    const std::string base = std::string("normalize/") + typeName(type) + "/";
    const auto timeBare = [type](OIIO::ImageBuf (*bare)(const OIIO::ImageBuf&)) {
        return [type, bare](benchmark::State& state) {
            const OIIO::ImageBuf& source = images().byType(type).buffer;
            for (auto _ : state) {
                check(state, !bare(source).has_error());
            }
        };
    };
    add(base + "library", [type](benchmark::State& state) {
        const ip::Image& source = images().byType(type);
        for (auto _ : state) {
            check(state, ip::normalize(source, 0.0f, 1.0f, {}).buffer.initialized());
        }
    });
    add(base + "statsMad", timeBare(statsAndMad));
    add(base + "singleThreaded", timeBare(singleThreadedPass<Stored>));
}

void registerNormalize() {
    registerNormalizeOf<float>(OIIO::TypeDesc::FLOAT);
    registerNormalizeOf<half>(OIIO::TypeDesc::HALF);
    registerNormalizeOf<std::uint8_t>(OIIO::TypeDesc::UINT8);
    registerNormalizeOf<std::uint32_t>(OIIO::TypeDesc::UINT32);
}

// ---------------------------------------------------------------------------------------------
// Peak memory of reading, each read in a fresh child process
// ---------------------------------------------------------------------------------------------

/// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::stol(line.substr(field.size() + 1));
        }
    }
    return -1;
}

/// Child mode: reads `file` once by `variant` after a warm-up read of a small file of the same
/// format (plug-in loaded, libraries initialised), with the peak of the resident set reset just
/// before. Prints the growth of the peak and the decoded pixel bytes.
int readPeakChild(const std::string& variant, const std::string& file, const std::string& warmUp) {
    (void)ip::readImage(warmUp);
    (void)bareImageBufRead(warmUp);
    std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM to the current VmRSS
    const long before = statusKiB("VmRSS");
    OIIO::ImageBuf buffer;
    if (variant == "library") {
        buffer = std::move(ip::readImage(file).buffer);
    } else if (variant == "ImageInput") {
        buffer = bareReadImage(file);
    } else {
        buffer = bareImageBufRead(file);
    }
    const long peak = statusKiB("VmHWM");
    std::printf("%ld %llu\n", peak - before,
                static_cast<unsigned long long>(buffer.spec().image_bytes()));
    return buffer.initialized() && before >= 0 ? 0 : 1;
}

std::string selfPath() {
    return fs::read_symlink("/proc/self/exe").string();
}

void registerReadPeak() {
    for (const FileCase& file : readCases()) {
        for (const char* variant : {"library", "ImageInput", "ImageBuf"}) {
            const std::string name = std::string("read_peak_memory/") + file.name + "/" + variant;
            add(name, [file, variant](benchmark::State& state) {
                const std::string small =
                    (folder() / (std::string("small_") + file.name + file.extension)).string();
                IBA::resize(images().byType(file.type).buffer, "", 0.0f,
                            OIIO::ROI(0, 64, 0, 64, 0, 1, 0, kChannels), 0)
                    .write(small);
                const std::string command = selfPath() + " --read-peak " + variant + " " +
                                            sourceFile(file).string() + " " + small;
                long growthKiB = 0;
                unsigned long long decoded = 0;
                for (auto _ : state) {
                    FILE* child = popen(command.c_str(), "r");
                    const bool ok = child != nullptr &&
                                    std::fscanf(child, "%ld %llu", &growthKiB, &decoded) == 2;
                    check(state, child != nullptr && pclose(child) == 0 && ok);
                }
                state.counters["peak_MiB"] = growthKiB / 1024.0;
                state.counters["decoded_MiB"] = decoded / (1024.0 * 1024.0);
                state.counters["peak_over_decoded"] = growthKiB * 1024.0 / decoded;
            })->Iterations(1);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--read-peak") {
        return readPeakChild(argv[2], argv[3], argv[4]);
    }
    // A host's logger: the library's debug lines (writeImage's timing) are filtered by level, as
    // in a host that logs at info.
    auto logger = std::make_shared<spdlog::logger>("benchmarks",
                                                   std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::info);
    spdlog::set_default_logger(logger);

    registerReading();
    registerWriting();
    registerOperations();
    registerNormalize();
    registerReadPeak();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("openimageio", OIIO_VERSION_STRING);
    benchmark::AddCustomContext("image",
                                std::to_string(kWidth) + "x" + std::to_string(kHeight) + " RGBA");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
