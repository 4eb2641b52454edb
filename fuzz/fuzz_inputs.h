#pragma once

// What the fuzz targets share: the extensions a first byte picks from, and the temporary file
// that the rest of an input becomes.

#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <OpenImageIO/imageio.h>
#include <spdlog/spdlog.h>

namespace vorel::fuzz {

/// The formats tried by name. OpenImageIO falls back to sniffing the content of a file that the
/// named reader refuses, so every reader is reached whatever the extension. ".iff" and ".heic" are
/// left out, and so is content that their readers (or SGI's) would take (see isKnownReaderCrash).
inline constexpr const char* kExtensions[] = {".png", ".jpg", ".bmp",  ".gif", ".webp", ".tif",
                                              ".exr", ".tga", ".hdr",  ".ppm", ".dpx",  ".sgi",
                                              ".ico", ".rla", ".fits", ".psd", ".pic"};
inline constexpr size_t kExtensionCount = sizeof(kExtensions) / sizeof(kExtensions[0]);

/// True for content that crashes a reader of OpenImageIO 2.4.7 itself, with no call of ours
/// involved. Left out here because the fuzzer would spend
/// its time on them. Others can't be told by a magic number and are sorted out by
/// fuzz/run_fuzzers.py instead, such as RLA's abort on an invalid channel type in
/// RLAInput::seek_subimage and GIF's std::length_error thrown through GIFInput::seek_subimage.
/// - IFF ("FOR4"): heap overflow in IffInput::readimg, abort on its "!(flags & BLACK)" assertion.
/// - HEIF (an ISO box "ftyp" at 4): HeifInput::read_native_scanline copies rows of the claimed
///   width out of libheif's smaller decoded image.
/// - SGI (magic 474) with other than 1 or 2 bytes per channel: SgiInput::read_native_scanline
///   segfaults (0) or throws std::length_error (255).
inline bool isKnownReaderCrash(std::string_view bytes) {
    const auto holds = [bytes](size_t offset, std::string_view text) {
        return bytes.size() >= offset + text.size() && bytes.substr(offset, text.size()) == text;
    };
    const bool sgi = holds(0, "\x01\xda") && !holds(3, "\x01") && !holds(3, "\x02");
    return holds(0, "FOR4") || holds(4, "ftyp") || sgi;
}

/// A file of the fuzz input: its first byte picks the extension, the rest is the content. Removed
/// at the end of the run of one input.
class InputFile {
public:
    InputFile(const std::uint8_t* data, size_t size) {
        extension_ = size > 0 ? data[0] % kExtensionCount : 0;
        content_ = size > 0 ? std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1)
                            : std::string_view();
        path_ = std::filesystem::temp_directory_path() /
                ("vorel-fuzz-" + std::to_string(getpid()) + kExtensions[extension_]);
        std::ofstream(path_, std::ios::binary).write(content_.data(), content_.size());
    }
    ~InputFile() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    size_t extension() const { return extension_; }
    const std::filesystem::path& path() const { return path_; }
    std::string_view content() const { return content_; }

private:
    size_t extension_;
    std::filesystem::path path_;
    std::string_view content_;
};

}  // namespace vorel::fuzz
