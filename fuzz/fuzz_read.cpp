// Every reading entry point on any file: they may fail, but only by their failure values.

#include <vorel/usd/image_processing/image_processing.h>

#include "fuzz_inputs.h"

namespace ip = vorel::usd::image_processing;

namespace {

/// Marks `outcome` (below 8) of the file's format as coverage of its own. OpenImageIO is
/// uninstrumented, so without this every format's seed would look the same to libFuzzer and all
/// but one would be dropped: mark<N> is a function of its own for each N, its branch an edge.
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
    const vorel::fuzz::InputFile file(data, size);
    if (vorel::fuzz::isKnownReaderCrash(file.content()))
        return -1;  // kept out of the corpus
    const ip::ImageSpec spec = ip::getImageSpec(file.path());
    const ip::Image image = ip::readImage(file.path());
    const ip::Image asset = ip::getImageFromAssetPath(file.path().string());
    const size_t outcome = (spec.width > 0) + 2 * image.buffer.initialized() +
                           4 * asset.buffer.initialized();
    mark<vorel::fuzz::kExtensionCount * 8 - 1>(file.extension() * 8 + outcome);
    // A read image has the size that getImageSpec reported.
    if (image.buffer.initialized() &&
        (image.buffer.spec().width != spec.width || image.buffer.spec().height != spec.height))
        __builtin_trap();
    return 0;
}
