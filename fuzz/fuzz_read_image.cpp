// readImage and getImageSpec on any file: they may fail, but only by their failure values.

#include <vorel/usd/image_processing/image_processing.h>

#include "fuzz_inputs.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vorel::fuzz::setUpHost();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    namespace ip = vorel::usd::image_processing;
    const vorel::fuzz::InputFile file(data, size);
    if (vorel::fuzz::isKnownReaderCrash(file.content())) {
        return -1;  // kept out of the corpus
    }
    const ip::ImageSpec spec = ip::getImageSpec(file.path());
    const ip::Image image = ip::readImage(file.path());
    vorel::fuzz::markOutcome(file.extension(),
                             (spec.width > 0 ? 1 : 0) + (image.buffer.initialized() ? 2 : 0));
    // A read image has the size that getImageSpec reported.
    if (image.buffer.initialized() &&
        (image.buffer.spec().width != spec.width || image.buffer.spec().height != spec.height)) {
        __builtin_trap();
    }
    return 0;
}
