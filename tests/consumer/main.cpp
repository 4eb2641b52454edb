// Builds against the installed headers and links the installed libraries only.
#include <cstdio>
#include <vector>

#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;

int main() {
    std::vector<float> pixels(2 * 2 * 3, 0.5f);
    ip::Image image = ip::createImageFromData(pixels.data(), 2, 2, 3, OIIO::TypeDesc::FLOAT);
    ip::setColorSpace(image, "linear");
    // The OpenUSD vocabulary comes through the public header, from OpenUSD or our stand-in.
    const bool ok = image.buffer.initialized() && ip::getNumChannels(image) == 3 &&
                    ip::getColorSpace(image) == "linear" &&
                    ip::getNumChannelsFromHgiFormat(PXR_NS::HgiFormatFloat32Vec4) == 4 &&
                    ip::getOIIOTypeDescFromHgiFormat(PXR_NS::HgiFormatFloat32Vec4) ==
                        OIIO::TypeDesc::FLOAT;
    std::printf("consumer: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
