// Every reading entry point on any file: they may fail, but only by their failure values. The
// first byte of an input picks the file's extension, the rest is its content.

#include <unistd.h>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <OpenImageIO/imageio.h>
#include <spdlog/spdlog.h>
#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;

namespace {

/// The formats tried by name (run_fuzzers.py seeds each, in this order). A file that the named
/// reader refuses goes to every other reader, so all are reached; ".iff" and ".heic" are left out.
constexpr const char* kExtensions[] = {".png", ".jpg", ".bmp",  ".gif", ".webp", ".tif",
                                       ".exr", ".tga", ".hdr",  ".ppm", ".dpx",  ".sgi",
                                       ".ico", ".rla", ".fits", ".psd", ".pic"};
constexpr size_t kExtensionCount = std::size(kExtensions);

/// True for content that crashes one of OpenImageIO 2.4.7's readers by itself, which the fuzzer
/// would keep finding (RLA's and GIF's crashes have no magic number; run_fuzzers.py sorts them):
/// IFF ("FOR4": IffInput::readimg overflows, or asserts "!(flags & BLACK)"), HEIF ("ftyp" at 4:
/// rows of the claimed width copied out of a smaller decoded image) and SGI (magic 474) with
/// other than 1 or 2 bytes per channel (SgiInput::read_native_scanline crashes or throws).
bool isKnownReaderCrash(std::string_view bytes) {
    const auto holds = [bytes](size_t offset, std::string_view text) {
        return bytes.size() >= offset + text.size() && bytes.substr(offset, text.size()) == text;
    };
    const bool sgi = holds(0, "\x01\xda") && !holds(3, "\x01") && !holds(3, "\x02");
    return holds(0, "FOR4") || holds(4, "ftyp") || sgi;
}

/// Marks `value` as coverage of its own (mark<N> is a function per N, its branch an edge): with
/// OpenImageIO uninstrumented, every format's seed would otherwise look the same to libFuzzer.
volatile size_t lastMark;
template <size_t N>
void mark(size_t value) {
    if (value == N)
        lastMark = N;
    else if constexpr (N > 0)
        mark<N - 1>(value);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Quiet, and no header may claim more pixel memory than the fuzzer's own limit allows.
    spdlog::set_level(spdlog::level::off);
    OIIO::attribute("limits:imagesize_MB", 64);
    OIIO::attribute("limits:channels", 64);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    const size_t extension = size > 0 ? data[0] % kExtensionCount : 0;
    const std::string_view content(reinterpret_cast<const char*>(data) + (size > 0),
                                   size - (size > 0));
    if (isKnownReaderCrash(content))
        return -1;  // kept out of the corpus
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() /
        ("vorel-fuzz-" + std::to_string(getpid()) + kExtensions[extension]);
    std::ofstream(path, std::ios::binary).write(content.data(), content.size());
    const ip::ImageSpec spec = ip::getImageSpec(path);
    const ip::Image image = ip::readImage(path);
    // A read image carries its file's ICC profile as it stands, whatever its offsets claim.
    ip::getIccProfileInfo(image);
    const ip::Image asset = ip::getImageFromAssetPath(path.string());
    std::filesystem::remove(path);
    mark<kExtensionCount * 8 - 1>(extension * 8 + (spec.width > 0) +
                                  2 * image.buffer.initialized() + 4 * asset.buffer.initialized());
    // A read image has the size that getImageSpec reported.
    if (image.buffer.initialized() &&
        (image.buffer.spec().width != spec.width || image.buffer.spec().height != spec.height))
        __builtin_trap();
    return 0;
}
