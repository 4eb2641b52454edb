// Builds against the installed headers and links the installed libraries only; the OpenUSD
// vocabulary comes through the public header, from OpenUSD or our stand-in.
#include <vorel/usd/image_processing/image_processing.h>

namespace ip = vorel::usd::image_processing;

int main() {
    float pixels[2 * 2 * 3] = {0.5f};
    ip::Image image = ip::createImageFromData(pixels, 2, 2, 3, OIIO::TypeDesc::FLOAT);
    ip::setColorSpace(image, "linear");
    const bool ok = ip::getNumChannels(image) == 3 && ip::getColorSpace(image) == "linear" &&
                    ip::getNumChannelsFromHgiFormat(PXR_NS::HgiFormatFloat32Vec4) == 4;
    return ok ? 0 : 1;
}
