// Writes the fuzzers' seed corpus into the folder given: for every extension, a small valid file
// of a gradient, as one input (the extension's index byte, then the file's bytes).

#include <cstdio>
#include <fstream>
#include <iterator>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>

#include "fuzz_inputs.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <seed folder>\n", argv[0]);
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::filesystem::remove_all(folder);  // no seeds left of extensions since dropped
    std::filesystem::create_directories(folder);
    int written = 0;
    for (size_t i = 0; i < vorel::fuzz::kExtensionCount; ++i) {
        const std::string extension = vorel::fuzz::kExtensions[i];
        // 64 wide: narrower images make OpenImageIO 2.4.7's HEIF writer read past their pixels.
        const int channels = extension == ".fits" ? 1 : 3;
        const OIIO::ImageBuf gradient = OIIO::ImageBufAlgo::fill(
            {0.1f, 0.5f, 0.9f}, {0.9f, 0.2f, 0.1f}, OIIO::ROI(0, 64, 0, 4, 0, 1, 0, channels));
        const std::filesystem::path file = folder / ("valid" + extension);
        if (!gradient.write(file.string())) {
            std::fprintf(stderr, "no seed for %s: %s\n", extension.c_str(),
                         gradient.geterror(true).c_str());
            continue;
        }
        std::ifstream in(file, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        in.close();
        std::filesystem::remove(file);
        std::ofstream seed(folder / ("seed" + extension), std::ios::binary);
        seed.put(static_cast<char>(i));
        seed.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        ++written;
    }
    std::printf("%d seeds in %s\n", written, folder.c_str());
    return written > 0 ? 0 : 1;
}
