// Builds against the installed headers and links the installed libraries only.
#include <cstdio>
#include <vector>

#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;

int main() {
    std::vector<float> pixels(2 * 2 * 3, 0.5f);
    ip::Image image = ip::createImageFromData(pixels.data(), 2, 2, 3, OIIO::TypeDesc::FLOAT);
    ip::setColorSpace(image, "linear");
    const bool ok = image.buffer.initialized() && ip::getNumChannels(image) == 3 &&
                    ip::getColorSpace(image) == "linear";
    std::printf("consumer: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
