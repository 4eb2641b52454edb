// getImageFromAssetPath on any file: Hio's readers and our copy of what they deliver.

#include <vorel/usd/image_processing/image_processing.h>

#include "fuzz_inputs.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vorel::fuzz::setUpHost();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    const vorel::fuzz::InputFile file(data, size);
    if (vorel::fuzz::isKnownReaderCrash(file.content())) {
        return -1;
    }
    const vorel::usd::image_processing::Image image =
        vorel::usd::image_processing::getImageFromAssetPath(file.path().string());
    vorel::fuzz::markOutcome(file.extension(), image.buffer.initialized() ? 1 : 0);
    return 0;
}
