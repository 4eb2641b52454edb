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

/// The formats tried by name (fuzz/run_fuzzers.py makes a seed of each, in this order).
/// OpenImageIO falls back to sniffing the content of a file that the named reader refuses, so
/// every reader is reached whatever the extension. ".iff" and ".heic" are left out, and so is
/// content that their readers (or SGI's) would take (see isKnownReaderCrash).
constexpr const char* kExtensions[] = {".png", ".jpg", ".bmp",  ".gif", ".webp", ".tif",
                                       ".exr", ".tga", ".hdr",  ".ppm", ".dpx",  ".sgi",
                                       ".ico", ".rla", ".fits", ".psd", ".pic"};
constexpr size_t kExtensionCount = std::size(kExtensions);

/// True for content that crashes a reader of OpenImageIO 2.4.7 itself, with no call of ours
/// involved: the fuzzer would spend its time on them. Others can't be told by a magic number and
/// are sorted out by fuzz/run_fuzzers.py instead, such as RLA's abort on an invalid channel type
/// in RLAInput::seek_subimage and GIF's std::length_error thrown through GIFInput::seek_subimage.
/// - IFF ("FOR4"): heap overflow in IffInput::readimg, abort on its "!(flags & BLACK)" assertion.
/// - HEIF (an ISO box "ftyp" at 4): HeifInput::read_native_scanline copies rows of the claimed
///   width out of libheif's smaller decoded image.
/// - SGI (magic 474) with other than 1 or 2 bytes per channel: SgiInput::read_native_scanline
///   segfaults (0) or throws std::length_error (255).
bool isKnownReaderCrash(std::string_view bytes) {
    const auto holds = [bytes](size_t offset, std::string_view text) {
        return bytes.size() >= offset + text.size() && bytes.substr(offset, text.size()) == text;
    };
    const bool sgi = holds(0, "\x01\xda") && !holds(3, "\x01") && !holds(3, "\x02");
    return holds(0, "FOR4") || holds(4, "ftyp") || sgi;
}

/// Marks `value` as coverage of its own. OpenImageIO is uninstrumented, so without this every
/// format's seed would look the same to libFuzzer and all but one would be dropped: mark<N> is a
/// function of its own for each N, its branch an edge.
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
    // The host's side of untrusted input: quiet, and no header may claim more pixel memory than
    // the fuzzer's own memory limit allows.
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
