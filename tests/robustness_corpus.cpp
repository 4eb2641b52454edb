// A corpus of damaged image files, derived deterministically at test time from small valid files
// of every format we read and write. Every reading entry point must answer each file either with
// a consistent image or with its one failure line, and must neither throw nor crash.

#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>

#include "test_support.h"

namespace ip = vorel::usd::image_processing;
namespace fs = std::filesystem;

namespace {

/// One file of the corpus: how it was made (its recipe, which names it in every report) and what
/// it holds.
struct Sample {
    std::string recipe, extension, bytes;
};

/// The valid files the damage starts from: one per format that OpenImageIO both reads and writes
/// here, with a second pixel type where the format's reader has a separate path for it. (JPEG
/// 2000 has none: its writer in OpenImageIO 2.4.7 leaves a 77-byte file that no reader takes.)
struct Format {
    const char* extension;
    int channels;
    OIIO::TypeDesc type;
};
using T = OIIO::TypeDesc;
const Format kFormats[] = {
    {".png", 4, T::UINT8},  {".png", 1, T::UINT16}, {".jpg", 3, T::UINT8},  {".bmp", 4, T::UINT8},
    {".bmp", 3, T::UINT8},  {".gif", 4, T::UINT8},  {".webp", 4, T::UINT8}, {".tif", 4, T::UINT8},
    {".tif", 3, T::FLOAT},  {".exr", 4, T::HALF},   {".exr", 3, T::FLOAT},  {".tga", 4, T::UINT8},
    {".hdr", 3, T::FLOAT},  {".ppm", 3, T::UINT8},  {".dpx", 3, T::UINT16}, {".sgi", 4, T::UINT8},
    {".ico", 4, T::UINT8},  {".iff", 4, T::UINT8},  {".rla", 4, T::UINT8},  {".fits", 1, T::FLOAT},
    {".heic", 3, T::UINT8},
};

/// Files that take the process down inside OpenImageIO 2.4.7 itself: oiiotool and iinfo crash on
/// them as well, with no call of ours involved. Kept out of the corpus, by name, so that the rest
/// still runs; the recipes recreate them. The fuzzer (fuzz/run_fuzzers.py) meets two more within
/// seconds inside ImageInput::open, which tries every reader on a file that the named one
/// refuses; no recipe here makes them:
/// - RLA: a header whose channel type is none of the known ones; RLAInput::seek_subimage aborts
///   on its assertion "Invalid colour channel type" (rlainput.cpp:725);
/// - GIF: GIFInput::seek_subimage lets std::length_error escape a noexcept function, and the
///   process ends in std::terminate.
const std::set<std::string> kOpenImageIOCrashes = {
    // TBHD chunk: bit 3 of byte 45 (the word after the compression field) set. The IFF reader's
    // read_native_tile then writes past its tile buffer: a heap overflow that ends in a segfault
    // or "double free or corruption".
    "iff-4xuint8/flip-45.3",
    // TBHD chunk: flags 0x7fffffff, which includes the BLACK flag. The IFF reader aborts the
    // process on its assertion "!(flags & BLACK)" (iffinput.cpp:306) instead of failing.
    "iff-4xuint8/word-32=1",
    // TBHD chunk: 0xff 0xff 0xff 0xff at byte 44, or 0xff 0xff 0xff 0x7f at byte 48. The IFF
    // reader's read_native_tile reads past its tile buffer (AddressSanitizer: heap-buffer-overflow;
    // valgrind reports the same invalid reads for oiiotool alone); no crash without a sanitizer.
    "iff-4xuint8/word-44=0",
    "iff-4xuint8/word-48=2",
};

/// Appends a valid file and the damaged files derived from it. Apart from truncations and wrong
/// extensions, all damage overwrites some bytes at an offset. std::mt19937's sequence is fixed by
/// the C++ standard and only its raw output is used: the same corpus, and recipe names, on every
/// machine.
void addDamaged(Sample valid, unsigned seed, const std::vector<std::string>& extensions,
                std::vector<Sample>& out) {
    out.push_back(valid);
    const std::string& bytes = valid.bytes;
    const size_t size = bytes.size();
    std::mt19937 random(seed);
    const auto add = [&](const std::string& what, std::string damaged, const std::string& ext) {
        out.push_back({valid.recipe + "/" + what, ext, std::move(damaged)});
    };
    const auto overwrite = [&](const std::string& what, size_t offset, const std::string& with) {
        add(what, std::string(bytes).replace(offset, with.size(), with), valid.extension);
    };
    const auto n = [](size_t value) { return std::to_string(value); };

    // Truncations at header-sized lengths, at every sixteenth and just short of the end.
    std::set<size_t> lengths = {0,  1,  2,   3,   4,   8,   12,       16,       24,      32,
                                48, 64, 100, 128, 200, 256, size - 1, size - 2, size - 4};
    for (size_t k = 1; k < 16; ++k) {
        lengths.insert(size * k / 16);
    }
    lengths.erase(lengths.lower_bound(size), lengths.end());
    for (const size_t length : lengths) {
        add("truncate-" + n(length), bytes.substr(0, length), valid.extension);
    }
    // Single bit flips, half of them in the first 128 bytes where the headers are.
    for (int i = 0; i < 64; ++i) {
        const size_t offset = random() % (i % 2 == 0 ? std::min<size_t>(128, size) : size);
        const unsigned bit = random() % 8;
        overwrite("flip-" + n(offset) + "." + n(bit), offset,
                  std::string(1, static_cast<char>(bytes[offset] ^ (1 << bit))));
    }
    // Words that sizes, counts and offsets go wrong with, every four bytes of the first 64.
    static const char* const kWords[] = {"\xff\xff\xff\xff", "\x7f\xff\xff\xff", "\xff\xff\xff\x7f",
                                         "\0\0\0\x80",       "\x80\0\0\0",       "\0\0\0\0"};
    for (size_t offset = 0; offset < std::min<size_t>(64, size - 4); offset += 4) {
        const size_t word = random() % std::size(kWords);
        overwrite("word-" + n(offset) + "=" + n(word), offset, std::string(kWords[word], 4));
    }
    // Zeroed headers of growing length, and 16 zeroed bytes at every tenth.
    for (size_t length = 1; length <= 256 && length < size; length *= 2) {
        overwrite("zero-0+" + n(length), 0, std::string(length, '\0'));
    }
    for (size_t k = 1; k < 10; ++k) {
        const size_t offset = size * k / 10;
        overwrite("zero-" + n(offset) + "+16", offset,
                  std::string(std::min<size_t>(16, size - offset), '\0'));
    }
    // The valid bytes behind every other format's extension, an unknown one and none; the first
    // half of them behind the last two.
    for (const std::string& extension : extensions) {
        if (extension != valid.extension) {
            add("as" + extension, bytes, extension);
        }
    }
    for (const std::string extension : {".xyz", ""}) {
        const std::string name = extension.empty() ? "-none" : extension;
        add("as" + name, bytes, extension);
        add("truncate-" + n(size / 2) + "-as" + name, bytes.substr(0, size / 2), extension);
    }
}

/// One valid file of every format of the table, written by OpenImageIO itself from a gradient of
/// `width` x `height` so that it holds real data.
std::vector<Sample> validFiles(const fs::path& folder, int width, int height, float step) {
    std::vector<Sample> valid;
    for (const Format& format : kFormats) {
        const std::string recipe = std::string(format.extension + 1) + "-" +
                                   std::to_string(format.channels) + "x" + format.type.c_str();
        const fs::path path = folder / (recipe + format.extension);
        vorel::test::writeWithOIIO(
            vorel::test::makeGradient(width, height, format.channels, format.type, step).buffer,
            path);
        std::ifstream in(path, std::ios::binary);
        valid.push_back({recipe, format.extension, {std::istreambuf_iterator<char>(in), {}}});
    }
    return valid;
}

/// The valid files at 64 x 12 and their damaged versions. 64 pixels wide: OpenImageIO 2.4.7's HEIF
/// writer reads past the end of the caller's pixels for images narrower than that
/// (AddressSanitizer: heap-buffer-overflow in HeifOutput::write_scanline, widths 16 to 63).
std::vector<Sample> corpus(const fs::path& folder) {
    std::vector<std::string> extensions;  // in table order; a format's rows are neighbours
    for (const Format& format : kFormats) {
        extensions.push_back(format.extension);
    }
    extensions.erase(std::unique(extensions.begin(), extensions.end()), extensions.end());
    const std::vector<Sample> valid = validFiles(folder, 64, 12, 0.002f);
    std::vector<Sample> all;
    for (size_t i = 0; i < valid.size(); ++i) {
        addDamaged(valid[i], static_cast<unsigned>(1000 + i), extensions, all);
    }
    return all;
}

/// Headers that claim other sizes, channel counts and data windows than the pixels that follow:
/// every field of the header (its first 512 bytes) that holds the width or the height (or those
/// less one, as OpenEXR's windows do), as a 16- or 32-bit integer of either byte order or as
/// decimal text, gets values that overflow, vanish or exceed memory; then the fields of channel
/// counts and depths, and OpenEXR's windows, by format.
void addClaims(const Sample& valid, int width, int height, std::vector<Sample>& out) {
    const std::string& bytes = valid.bytes;
    const size_t header = std::min<size_t>(512, bytes.size());
    const auto n = [](size_t value) { return std::to_string(value); };
    const auto add = [&](const std::string& what, size_t offset, const std::string& with) {
        out.push_back({valid.recipe + "/claim-" + what + "@" + n(offset), valid.extension,
                       std::string(bytes).replace(offset, with.size(), with)});
    };
    const auto encode = [](std::uint32_t value, int size, bool bigEndian) {
        std::string word(size, '\0');
        for (int i = 0; i < size; ++i) {
            word[bigEndian ? size - 1 - i : i] = static_cast<char>(value >> (8 * i));
        }
        return word;
    };
    for (const int size : {4, 2}) {
        for (const bool bigEndian : {false, true}) {
            for (const int value : {width, height, width - 1, height - 1}) {
                const std::string field =
                    encode(static_cast<std::uint32_t>(value), size, bigEndian);
                for (size_t at = bytes.find(field); at < header; at = bytes.find(field, at + 1)) {
                    const std::uint32_t claims[] = {0, 0x7fffffff, 0x80000000, 0xffffffff, 262661};
                    for (const std::uint32_t claim : claims) {
                        add(n(size) + (bigEndian ? "be" : "le") + "=" + n(claim), at,
                            encode(claim > 0xffff && size == 2 ? claim >> 16 : claim, size,
                                   bigEndian));
                    }
                }
            }
        }
    }
    for (const int value : {width, height}) {
        const std::string text = std::to_string(value);
        for (size_t at = bytes.find(text); at < header; at = bytes.find(text, at + 1)) {
            const bool token =
                (at == 0 || !std::isdigit(static_cast<unsigned char>(bytes[at - 1]))) &&
                !std::isdigit(static_cast<unsigned char>(bytes[at + text.size()]));
            for (const std::string claim : {"0", "-1", "2147483648", "99999999999"}) {
                if (token) {
                    out.push_back({valid.recipe + "/claim-text=" + claim + "@" + n(at),
                                   valid.extension,
                                   std::string(bytes).replace(at, text.size(), claim)});
                }
            }
        }
    }
    // Channel counts, sample depths and colour types where each format keeps them.
    struct Field {
        const char* extension;
        size_t offset;
        int size;
        bool bigEndian;
        std::vector<std::uint32_t> claims;
    };
    static const Field kFields[] = {
        {".png", 24, 1, true, {0, 1, 7, 32, 255}},      // IHDR bit depth
        {".png", 25, 1, true, {1, 3, 5, 7, 255}},       // IHDR colour type
        {".bmp", 28, 2, false, {0, 1, 7, 64, 0xffff}},  // bits per pixel
        {".tga", 16, 1, false, {0, 7, 64, 255}},        // pixel depth
        {".sgi", 10, 2, true, {0, 2, 5, 0xffff}},       // channels (zsize)
        {".sgi", 3, 1, true, {0, 3, 255}},              // bytes per channel
        {".dpx", 770, 2, true, {0, 9, 0xffff}},         // image elements
        {".ico", 12, 2, false, {0, 7, 64, 0xffff}},     // bits per pixel
    };
    for (const Field& field : kFields) {
        if (valid.extension == field.extension && field.offset + field.size <= bytes.size()) {
            for (const std::uint32_t claim : field.claims) {
                add("field=" + n(claim), field.offset, encode(claim, field.size, field.bigEndian));
            }
        }
    }
    // TIFF's SamplesPerPixel (tag 277, one SHORT, little-endian as OpenImageIO writes it).
    const std::string samplesPerPixel("\x15\x01\x03\0\x01\0\0\0", 8);
    if (const size_t tag = bytes.find(samplesPerPixel); tag < header) {
        for (const std::uint32_t claim : {0u, 2u, 5u, 1025u, 0xffffu}) {
            add("samples=" + n(claim), tag + 8, encode(claim, 2, false));
        }
    }
    // OpenEXR's windows (xmin, ymin, xmax, ymax): moved far out, inverted, or past int's range.
    for (const std::string window : {"dataWindow", "displayWindow"}) {
        const std::string key = window + std::string("\0box2i\0", 7);
        if (const size_t at = bytes.find(key); at < header) {
            const size_t box = at + key.size() + 4;
            const std::pair<size_t, std::uint32_t> claims[] = {
                {0, 0x80000000},
                {4, 0x80000000},
                {0, 0x7fffffff},
                {4, 1000},
                {8, 0xffffffff},
                {12, 0x7ffffffe},
                {0, static_cast<std::uint32_t>(width)}};
            for (const auto& [field, claim] : claims) {
                add(window + "+" + n(field) + "=" + n(claim), box + field, encode(claim, 4, false));
            }
        }
    }
}

/// Claims that take the process down inside OpenImageIO 2.4.7 itself, whatever the caller does:
/// plain ImageInput::open and read_image crash on them too. Kept out by name like the IFF files.
const std::set<std::string> kOpenImageIOClaimCrashes = {
    // Bytes per channel 0: SgiInput::read_native_scanline segfaults. Bytes per channel 255: it
    // throws std::length_error, which would pass through to the caller as any dependency's does.
    "sgi-4xuint8/claim-field=0@3",
    "sgi-4xuint8/claim-field=255@3",
};

/// Readers that fail on size claims in general, so that every claim of their format is kept out:
/// - IFF: IffInput::readimg overruns its tile buffer and ends in "free(): invalid pointer" or a
///   segfault (plain ImageInput::read_image does the same), as with the IFF files kept out of the
///   other corpus;
/// - HEIF: HeifInput::read_native_scanline copies rows of the size in the ispe box out of
///   libheif's decoded image of another size (AddressSanitizer: heap-buffer-overflow, e.g. for
///   "heic-3xuint8/claim-2be=2147483647@421").
bool isClaimOfCrashingReader(const std::string& recipe) {
    return recipe.rfind("iff-", 0) == 0 || recipe.rfind("heic-", 0) == 0;
}

/// PNG guards its header with a CRC: a claim there is made good again so that libpng reads it.
void fixPngHeaderCrc(std::string& bytes) {
    if (bytes.size() < 33 || bytes.compare(12, 4, "IHDR") != 0) {
        return;
    }
    std::uint32_t crc = 0xffffffff;
    for (size_t i = 12; i < 29; ++i) {
        crc ^= static_cast<unsigned char>(bytes[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
        }
    }
    crc = ~crc;
    for (int i = 0; i < 4; ++i) {
        bytes[29 + i] = static_cast<char>(crc >> (24 - 8 * i));
    }
}

/// Valid files of every format at 128 x 37 (sizes unlikely to occur by chance in a header), with
/// the claims of addClaims made on each. The width is a multiple of 64: OpenImageIO 2.4.7's HEIF
/// writer reads past the end of the rows of other widths (AddressSanitizer: heap-buffer-overflow).
std::vector<Sample> claimsCorpus(const fs::path& folder) {
    std::vector<Sample> all;
    for (const Sample& valid : validFiles(folder, 128, 37, 0.0002f)) {
        addClaims(valid, 128, 37, all);
    }
    for (Sample& sample : all) {
        if (sample.extension == ".png") {
            fixPngHeaderCrc(sample.bytes);
        }
    }
    return all;
}

/// "crash while reading <recipe>" for the file being tried: a crash inside a reader can't be
/// caught, but it must name the file.
std::string crashNote;
constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
struct sigaction previousActions[NSIG];

extern "C" void reportCrash(int signalNumber) {
    [[maybe_unused]] ssize_t n = write(STDERR_FILENO, crashNote.data(), crashNote.size());
    // The previous handler (the default one, or the sanitizer's with its stack trace) takes over.
    sigaction(signalNumber, &previousActions[signalNumber], nullptr);
    std::raise(signalNumber);
}

/// True when OpenImageIO itself opens the file as an image of no pixels, as the FITS reader does
/// with a damaged axis length: getImageSpec then passes on 0x0 as a size, with no failure line.
bool opensAsEmpty(const std::string& file) {
    const std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(file);
    const bool empty = in && in->spec().width == 0 && in->spec().height == 0;
    OIIO::geterror(true);
    return empty;
}

/// Damaged headers claim up to 4 billion pixels. Files claiming more than this many are not
/// given to getImageFromAssetPath, which zero-fills its pixel vector at the claimed size before
/// Hio reads (gigabytes touched before the read fails), and whose width x height is an int that
/// overflows past 2^31 pixels. Under AddressSanitizer readImage isn't tried on them either: its
/// untouched allocation of that size makes the sanitizer poison gigabytes of shadow memory.
constexpr int64_t kHugePixelCount = int64_t(1) << 26;

/// Under AddressSanitizer every third file is tried, a deterministic third that still holds every
/// format and every kind of damage: a file no reader takes costs a probe of all of OpenImageIO's
/// readers, and the JPEG 2000 reader starts and joins a thread pool on each probe.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif
constexpr size_t kStride = kUnderAddressSanitizer ? 3 : 1;

using Lines = std::vector<std::string>;

class RobustnessCorpus : public vorel::test::LibraryTest {
protected:
    /// Expects no log line for no `prefixes`, else exactly one, at `level`, from the library,
    /// starting with one of `prefixes` (OpenImageIO's own text follows); then clears the log.
    void expectLog(const char* call, spdlog::level::level_enum level, const Lines& prefixes) {
        const auto records = log.records();
        const bool one = records.size() == 1 && records[0].level == level &&
                         records[0].funcname == "vorel_usd_image_processing" &&
                         std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& p) {
                             return records[0].message.rfind(p, 0) == 0;
                         });
        EXPECT_TRUE(prefixes.empty() ? records.empty() : one)
            << call << ": " << records.size() << " log lines";
        log.clear();
    }

    /// Expects an image of the size getImageSpec gave with no line logged, or the empty Image
    /// with its one failure line.
    void expectContract(const char* call, const ip::Image& image, const ip::ImageSpec& size,
                        spdlog::level::level_enum level, const Lines& prefixes) {
        const bool read = image.buffer.initialized();
        EXPECT_TRUE(image.properties.empty() &&
                    (!read || (image.buffer.spec().width == size.width &&
                               image.buffer.spec().height == size.height)))
            << call << ": properties, or a size other than getImageSpec's";
        expectLog(call, level, read ? Lines{} : prefixes);
    }

    /// Hio reads with decoders of its own, which take many files that OpenImageIO refuses (and
    /// the other way round): expects a consistent image of UINT8 samples with no line logged, or
    /// the empty Image with its one failure line.
    void expectAssetContract(const ip::Image& image, const std::string& file) {
        const OIIO::ImageSpec& spec = image.buffer.spec();
        const bool read = image.buffer.initialized();
        EXPECT_TRUE(image.properties.empty() &&
                    (read ? spec.width > 0 && spec.height > 0 && spec.format == OIIO::TypeUInt8 &&
                                ip::getNumChannels(image) == spec.nchannels &&
                                image.buffer.roi() == OIIO::get_roi_full(spec)
                          : spec.width == 0 && spec.height == 0))
            << "getImageFromAssetPath: properties, or an inconsistent image of " << spec.width
            << "x" << spec.height << "x" << spec.nchannels << " " << spec.format;
        expectLog("getImageFromAssetPath", spdlog::level::err,
                  read ? Lines{}
                       : Lines{"Failed to open image " + file,
                               "Reading of image " + file + " failed", "Couldn't create image:\n"});
    }

    /// Runs the reading entry points on one file.
    void check(const fs::path& path) {
        const std::string file = path.string();
        log.clear();
        const ip::ImageSpec size = ip::getImageSpec(path);
        const bool failed =
            size.width == 0 && size.height == 0 && !(log.records().empty() && opensAsEmpty(file));
        expectLog("getImageSpec", spdlog::level::err,
                  failed ? Lines{"Couldn't open image " + file + ":\n"} : Lines{});
        const bool huge = int64_t{size.width} * size.height > kHugePixelCount;
        if (!(huge && kUnderAddressSanitizer)) {
            const ip::Image image = ip::readImage(path);
            ++(image.buffer.initialized() ? read_ : refused_);
            expectContract("readImage", image, size, spdlog::level::warn,
                           {"Couldn't read image " + file + ":\n"});
        }
        if (!huge) {
            const ip::Image asset = ip::getImageFromAssetPath(file);
            loaded_ += asset.buffer.initialized() ? 1 : 0;
            expectAssetContract(asset, file);
        }
    }

    /// A crash names the corpus file being read before the process goes.
    static void reportCrashes() {
        struct sigaction action = {};
        action.sa_handler = reportCrash;
        for (const int signalNumber : kCrashSignals) {
            sigaction(signalNumber, &action, &previousActions[signalNumber]);
        }
    }

    /// Writes each distinct sample that `keptOut` doesn't name to a file (every kStride-th of
    /// them), hands it to `read`, and returns how many distinct samples there were. Different
    /// recipes can give the same file (a truncation meeting a flipped byte's end): it counts once.
    size_t readEach(const std::vector<Sample>& samples,
                    const std::function<bool(const std::string&)>& keptOut,
                    const std::function<void(const fs::path&)>& read) {
        reportCrashes();
        std::set<std::pair<std::string, std::string>> seen;
        size_t distinct = 0;
        for (const Sample& sample : samples) {
            if (keptOut(sample.recipe) || !seen.insert({sample.extension, sample.bytes}).second ||
                distinct++ % kStride != 0) {
                continue;
            }
            SCOPED_TRACE(sample.recipe);
            crashNote = "\n*** crash while reading corpus file: " + sample.recipe + "\n";
            const fs::path path = temp / ("corpus" + sample.extension);
            std::ofstream(path, std::ios::binary).write(sample.bytes.data(), sample.bytes.size());
            EXPECT_NO_THROW(read(path));
            fs::remove(path);
        }
        crashNote.clear();
        return distinct;
    }

    int read_ = 0, refused_ = 0, loaded_ = 0;
};

TEST_F(RobustnessCorpus, EveryDamagedFileGivesAConsistentImageOrOneFailureLine) {
    const size_t distinct = readEach(
        corpus(temp.path()),
        [](const std::string& recipe) { return kOpenImageIOCrashes.count(recipe) != 0; },
        [this](const fs::path& path) { check(path); });
    // Both outcomes must be well represented, or the corpus doesn't test what it claims to.
    EXPECT_GT(distinct, 2000u);
    EXPECT_TRUE(read_ > 100 && refused_ > 100 && loaded_ > 100)
        << read_ << " read, " << refused_ << " refused, " << loaded_ << " loaded";
}

TEST_F(RobustnessCorpus, HeadersClaimingOtherSizesGiveAConsistentImageOrOneFailureLine) {
    // A host reading untrusted files tightens OpenImageIO's limits; every claim beyond them is
    // then refused before anything of its size is allocated, also by getImageFromAssetPath.
    const vorel::test::ScopedLimit imageSize("limits:imagesize_MB", 64);
    const vorel::test::ScopedLimit channels("limits:channels", 64);
    const auto keptOut = [](const std::string& recipe) {
        return kOpenImageIOClaimCrashes.count(recipe) != 0 || isClaimOfCrashingReader(recipe);
    };
    const size_t distinct =
        readEach(claimsCorpus(temp.path()), keptOut, [this](const fs::path& path) {
            check(path);
            // check() leaves huge claims out of getImageFromAssetPath; under these limits it
            // refuses them before allocating.
            const ip::ImageSpec size = ip::getImageSpec(path);
            log.clear();
            if (int64_t{size.width} * size.height > kHugePixelCount) {
                const std::string file = path.string();
                expectAssetContract(ip::getImageFromAssetPath(file), file);
            }
        });
    EXPECT_GT(distinct, 500u);
}

}  // namespace
