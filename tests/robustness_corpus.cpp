// A corpus of damaged image files, derived deterministically at test time from small valid files
// of every format we read and write. Every reading entry point must answer each file either with
// a consistent image or with its one failure line, and must neither throw nor crash.

#include <unistd.h>
#include <csignal>
#include <cstring>
#include <fstream>
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
    std::string recipe;
    std::string extension;
    std::string bytes;
};

/// The valid files the damage starts from: one per format that OpenImageIO both reads and writes
/// here, with a second pixel type where the format's reader has a separate path for it. (JPEG
/// 2000 has none: its writer in OpenImageIO 2.4.7 leaves a 77-byte file that no reader takes.)
struct Format {
    const char* extension;
    int channels;
    OIIO::TypeDesc type;
};
const Format kFormats[] = {
    {".png", 4, OIIO::TypeDesc::UINT8},  {".png", 1, OIIO::TypeDesc::UINT16},
    {".jpg", 3, OIIO::TypeDesc::UINT8},  {".bmp", 4, OIIO::TypeDesc::UINT8},
    {".bmp", 3, OIIO::TypeDesc::UINT8},  {".gif", 4, OIIO::TypeDesc::UINT8},
    {".webp", 4, OIIO::TypeDesc::UINT8}, {".tif", 4, OIIO::TypeDesc::UINT8},
    {".tif", 3, OIIO::TypeDesc::FLOAT},  {".exr", 4, OIIO::TypeDesc::HALF},
    {".exr", 3, OIIO::TypeDesc::FLOAT},  {".tga", 4, OIIO::TypeDesc::UINT8},
    {".hdr", 3, OIIO::TypeDesc::FLOAT},  {".ppm", 3, OIIO::TypeDesc::UINT8},
    {".dpx", 3, OIIO::TypeDesc::UINT16}, {".sgi", 4, OIIO::TypeDesc::UINT8},
    {".ico", 4, OIIO::TypeDesc::UINT8},  {".iff", 4, OIIO::TypeDesc::UINT8},
    {".rla", 4, OIIO::TypeDesc::UINT8},  {".fits", 1, OIIO::TypeDesc::FLOAT},
    {".heic", 3, OIIO::TypeDesc::UINT8},
};

/// Files that take the process down inside OpenImageIO 2.4.7 itself: oiiotool and iinfo crash on
/// them as well, with no call of ours involved. Kept out of the corpus, by name, so that the rest
/// still runs; the recipes recreate them.
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

/// Appends the damaged files of one valid file. Apart from truncations and wrong extensions, all
/// damage overwrites some bytes at an offset. std::mt19937's sequence is fixed by the C++
/// standard and only its raw output is used: the same corpus, and recipe names, on every machine.
void addDamaged(const Sample& valid, unsigned seed, const std::vector<std::string>& extensions,
                std::vector<Sample>& out) {
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
    for (const size_t length : lengths) {
        if (length < size) {
            add("truncate-" + n(length), bytes.substr(0, length), valid.extension);
        }
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
    for (const size_t length : {1, 2, 4, 8, 16, 32, 64, 128, 256}) {
        if (length < size) {
            overwrite("zero-0+" + n(length), 0, std::string(length, '\0'));
        }
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

/// The valid files, written by OpenImageIO itself from gradients so that they hold real data, and
/// their damaged versions, each distinct file once. 64 pixels wide: OpenImageIO 2.4.7's HEIF
/// writer reads past the end of the caller's pixels for images narrower than that
/// (AddressSanitizer: heap-buffer-overflow in HeifOutput::write_scanline, widths 16 to 63).
std::vector<Sample> corpus(const fs::path& folder) {
    std::vector<std::string> extensions;
    for (const Format& format : kFormats) {
        if (std::find(extensions.begin(), extensions.end(), format.extension) == extensions.end()) {
            extensions.push_back(format.extension);
        }
    }
    std::vector<Sample> all;
    for (const Format& format : kFormats) {
        const std::string recipe = std::string(format.extension + 1) + "-" +
                                   std::to_string(format.channels) + "x" + format.type.c_str();
        const fs::path path = folder / (recipe + format.extension);
        vorel::test::writeWithOIIO(
            vorel::test::makeGradient(64, 12, format.channels, format.type, 0.002f).buffer, path);
        std::ifstream in(path, std::ios::binary);
        const Sample valid{recipe, format.extension, {std::istreambuf_iterator<char>(in), {}}};
        all.push_back(valid);
        addDamaged(valid, static_cast<unsigned>(1000 + (&format - kFormats)), extensions, all);
    }
    std::set<std::pair<std::string, std::string>> seen;
    std::vector<Sample> unique;
    for (Sample& sample : all) {
        if (kOpenImageIOCrashes.count(sample.recipe) == 0 &&
            seen.insert({sample.extension, sample.bytes}).second) {
            unique.push_back(std::move(sample));
        }
    }
    return unique;
}

/// The recipe being tried: a crash inside a reader can't be caught, but it must name the file.
const char* currentRecipe = "(none)";
constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
struct sigaction previousActions[NSIG];

extern "C" void reportCrash(int signalNumber) {
    static const char kText[] = "\n*** crash while reading corpus file: ";
    [[maybe_unused]] ssize_t ignored = write(STDERR_FILENO, kText, sizeof(kText) - 1);
    ignored = write(STDERR_FILENO, currentRecipe, std::strlen(currentRecipe));
    ignored = write(STDERR_FILENO, "\n", 1);
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
constexpr size_t kStride = 3;
#else
constexpr bool kUnderAddressSanitizer = false;
constexpr size_t kStride = 1;
#endif

class RobustnessCorpus : public vorel::test::LibraryTest {
protected:
    /// "" when the log holds exactly one line, at `level`, from the library, starting with one of
    /// `prefixes` (OpenImageIO's own text follows); else what it holds.
    std::string unlessOneLine(spdlog::level::level_enum level,
                              const std::vector<std::string>& prefixes) {
        const auto records = log.records();
        for (const std::string& prefix : prefixes) {
            if (records.size() == 1 && records[0].level == level &&
                records[0].funcname == "vorel_usd_image_processing" &&
                records[0].message.rfind(prefix, 0) == 0) {
                return "";
            }
        }
        return std::to_string(records.size()) + " log lines instead of one";
    }
    std::string unlessSilent() {
        const auto records = log.records();
        return records.empty() ? "" : "logged on success: " + records[0].message;
    }

    /// "" for an image of the size getImageSpec gave with not a line logged, or for the empty
    /// Image with its one failure line; else what is wrong.
    std::string verdict(const ip::Image& image, const ip::ImageSpec& size,
                        spdlog::level::level_enum level, const std::vector<std::string>& prefixes) {
        if (!image.properties.empty()) {
            return "properties filled";
        }
        if (!image.buffer.initialized()) {
            return unlessOneLine(level, prefixes);
        }
        const OIIO::ImageSpec& spec = image.buffer.spec();
        return spec.width != size.width || spec.height != size.height
                   ? "size differs from getImageSpec's"
                   : unlessSilent();
    }

    /// Runs the reading entry points on one file; what broke their contract fails the test.
    void check(const fs::path& path, const std::string& recipe) {
        const std::string file = path.string();
        log.clear();
        const ip::ImageSpec size = ip::getImageSpec(path);
        const bool failed =
            size.width == 0 && size.height == 0 && !(log.records().empty() && opensAsEmpty(file));
        EXPECT_EQ(failed
                      ? unlessOneLine(spdlog::level::err, {"Couldn't open image " + file + ":\n"})
                      : unlessSilent(),
                  "")
            << recipe << ": getImageSpec";
        const bool huge = int64_t{size.width} * size.height > kHugePixelCount;
        if (!(huge && kUnderAddressSanitizer)) {
            log.clear();
            const ip::Image image = ip::readImage(path);
            ++(image.buffer.initialized() ? read_ : refused_);
            EXPECT_EQ(
                verdict(image, size, spdlog::level::warn, {"Couldn't read image " + file + ":\n"}),
                "")
                << recipe << ": readImage";
        }
        if (!huge) {
            log.clear();
            const ip::Image asset = ip::getImageFromAssetPath(file);
            loaded_ += asset.buffer.initialized() ? 1 : 0;
            EXPECT_EQ(verdict(asset, size, spdlog::level::err,
                              {"Failed to open image " + file,
                               "Reading of image " + file + " failed", "Couldn't create image:\n"}),
                      "")
                << recipe << ": getImageFromAssetPath";
        }
    }

    int read_ = 0;
    int refused_ = 0;
    int loaded_ = 0;
};

TEST_F(RobustnessCorpus, EveryDamagedFileGivesAConsistentImageOrOneFailureLine) {
    struct sigaction action = {};
    action.sa_handler = reportCrash;
    for (const int signalNumber : kCrashSignals) {
        sigaction(signalNumber, &action, &previousActions[signalNumber]);
    }
    const std::vector<Sample> samples = corpus(temp.path());
    ASSERT_GT(samples.size(), 2000u);
    for (size_t i = 0; i < samples.size(); i += kStride) {
        const Sample& sample = samples[i];
        currentRecipe = sample.recipe.c_str();
        const fs::path path = temp / ("corpus" + sample.extension);
        std::ofstream(path, std::ios::binary).write(sample.bytes.data(), sample.bytes.size());
        try {
            check(path, sample.recipe);
        } catch (...) {
            ADD_FAILURE() << sample.recipe << ": threw";
        }
        fs::remove(path);
    }
    currentRecipe = "(none)";
    // Both outcomes must be well represented, or the corpus doesn't test what it claims to.
    const int tried = static_cast<int>(samples.size() / kStride);
    EXPECT_TRUE(read_ > tried / 10 && refused_ > tried / 3 && loaded_ > tried / 10)
        << read_ << " read, " << refused_ << " refused, " << loaded_ << " loaded of " << tried;
}

}  // namespace
