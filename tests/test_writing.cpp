// The colour policy by extension and the three writers, proven on real files read back through
// OpenImageIO's ImageInput, and the calls that would take OpenImageIO 2.4.7's writers down.

#include "test_support.h"

using namespace vorel::test;

namespace {

/// Every subimage of `file` as an independent reader sees it: "name channels format WxH fps" and
/// the digest of its pixels in the file's own type.
std::string readBack(const fs::path& file) {
    std::vector<std::string> found;
    const auto in = OIIO::ImageInput::open(file.string());
    for (int i = 0; in && in->seek_subimage(i, 0); ++i) {
        const OIIO::ImageSpec& spec = in->spec();
        int fps[2] = {0, 0};
        spec.getattribute("FramesPerSecond", OIIO::TypeRational, fps);
        std::vector<unsigned char> pixels(spec.image_bytes());
        in->read_image(i, 0, 0, spec.nchannels, spec.format, pixels.data());
        found.push_back(fmt::format("{} {} {} {}x{} {}/{} {}",
                                    spec.get_string_attribute("oiio:subimagename"), spec.nchannels,
                                    spec.format.c_str(), spec.width, spec.height, fps[0], fps[1],
                                    digestOf(pixels)));
    }
    return fmt::format("{}", fmt::join(found, "; "));
}

ip::Image tagged(const std::string& colorSpace, int channels = 3,
                 OIIO::TypeDesc format = OIIO::TypeFloat, int width = 8, int height = 6) {
    ip::Image image = makeGradient(width, height, channels, format);
    image.buffer.specmod().attribute("oiio:ColorSpace", colorSpace);
    return image;
}

class Writing : public LibraryTest {};

TEST_F(Writing, ColourPolicyConvertsForTheExtensionAndTheWriterOnlyReportsMismatches) {
    // Converted for the extension, written converted and written as it was: strict extensions
    // report a mismatch and write all the same, lenient ones never report. Float samples reach
    // OpenEXR exactly: a.exr reads back with the digest of the unconverted gradient.
    const std::pair<const char*, const char*> cases[] = {
        {"a.JPEG", "linear"}, {"a.b.Gif", "srgb"}, {"a.Bmp", "linear"}, {"a.WEBP", "linear"},
        {"a.EXR", "Rec709"},  {"a.exr", "linear"}, {"a.Tiff", "sRGB"},  {"a.tif", "srgb"},
        {"a.png", "linear"},  {"a.PNG", "sRGB"},   {"a.xyz", "linear"}, {"noextension", "sRGB"},
        {".exr", "sRGB"},     {"b.jpg", ""},       {"c.jpg", "unknown"}};
    for (const auto& [file, from] : cases) {
        ip::Image image = tagged(from);
        row(fmt::format("{} from '{}'", file, from), ip::colorConvertByFormat(image, temp / file));
        row("  for the extension", ip::getColorSpaceForExtension(temp / file));
        row("  converted", describe(image));
        if (image.buffer.initialized())
            row("  written", ip::writeImage(image, temp / file, -1));
        row("  written as it was", ip::writeImage(tagged(from), temp / file));
        row("  read back", readBack(temp / file));
    }
}

TEST_F(Writing, ThePngLevelAndTheFailuresOfAWrite) {
    const ip::Image image = tagged("sRGB", 3, OIIO::TypeDesc::UINT8, 64, 64);
    for (const int level : {9, 0, -1})
        row(fmt::format("level {}", level),
            ip::writeImage(image, temp / fmt::format("{}.png", level), level));
    EXPECT_GT(fs::file_size(temp / "0.png"), 2 * fs::file_size(temp / "9.png"));
    // An unknown extension fails before any colour message; a missing folder at the open, where
    // the PNG writer gives no reason.
    row("unknown extension", ip::writeImage(tagged(""), temp / "image.xyz"));
    row("missing folder", ip::writeImage(tagged("sRGB"), temp / "no folder/image.png"));
}

TEST_F(Writing, MultiPartExrKeepsEachPartsChannelsTypeAndName) {
    const std::vector<ip::Image> images{tagged("linear", 3, OIIO::TypeHalf), tagged("", 1),
                                        tagged("sRGB", 4, OIIO::TypeDesc::UINT8)};
    const fs::path file = temp / "layers.exr";
    row("3 parts", ip::writeMultiPartEXR({"beauty", "depth", "mask"}, images, file));
    // The half and float parts read back with their sources' digests; 8 bits come back as half.
    row("  read back", readBack(file));
    // A writer's text is taken back off the image it went through. OpenEXR and GIF refuse an
    // empty declaration themselves; the others would crash OpenImageIO 2.4.7 and are refused
    // beforehand.
    const std::vector<ip::Image> none,
        sizes{tagged("linear"), tagged("linear", 3, OIIO::TypeFloat, 4)};
    const std::tuple<std::vector<std::string>, const std::vector<ip::Image>*, const char*> cases[] =
        {{{"a", "b"}, &images, "short.exr"},
         {{"a", "b"}, &sizes, "sizes.exr"},
         {{"a", "b", "c"}, &images, "parts.png"},
         {{}, &none, "none.exr"},
         {{}, &none, "none.gif"},
         {{}, &none, "none.png"},
         {{}, &none, "none.TIF"}};
    for (const auto& [names, list, name] : cases) {
        row(name, ip::writeMultiPartEXR(names, *list, temp / name));
        const bool errorLeft = std::any_of(list->begin(), list->end(),
                                           [](const ip::Image& i) { return i.buffer.has_error(); });
        row("  file exists, error left on an image",
            fmt::format("{}, {}", fs::exists(temp / name), errorLeft));
    }
}

TEST_F(Writing, AnimatedGifWritesEveryFrameAsEightBitWithTheFrameRate) {
    std::vector<ip::Image> frames{tagged("sRGB"), tagged("linear", 3, OIIO::TypeDesc::UINT16),
                                  tagged("")};
    // A tiled source: the writer is given untiled scanlines.
    frames[1].buffer.specmod().tile_width = 4;
    frames[1].buffer.specmod().tile_height = 4;
    row("3 frames", ip::writeAnimatedGif(frames, temp / "anim.gif", 12.5f));
    row("  read back", readBack(temp / "anim.gif"));  // a delay of 8 hundredths: 100/8 fps
    row("none", ip::writeAnimatedGif({}, temp / "empty.gif", 10.0f));
    // The refusal of a writer is left on the frame, unlogged. A larger GIF frame would overrun
    // OpenImageIO 2.4.7's GIF writer, a smaller one come out reshaped: refused too.
    const auto frameErrors = [](const std::vector<ip::Image>& list) {
        std::string errors;
        for (const ip::Image& frame : list)
            errors += "[" + frame.buffer.geterror() + "]";
        return errors;
    };
    row("3 frames to a PNG", ip::writeAnimatedGif(frames, temp / "still.png", 10.0f));
    row("  " + frameErrors(frames), readBack(temp / "still.png"));
    for (const auto& [width, height, index] : {std::tuple{65, 64, 1}, {256, 256, 2}, {64, 32, 1}}) {
        std::vector<ip::Image> sized(index + 2, makeGradient(64, 64, 3));
        sized[index] = makeGradient(width, height, 3);
        row(fmt::format("{}x{} as frame {}", width, height, index),
            ip::writeAnimatedGif(sized, temp / "sized.gif", 10.0f));
        row("  " + frameErrors(sized), readBack(temp / "sized.gif"));
    }
    // The frame size guard is the GIF writer's only: others keep frames of different sizes.
    row("8x6 and 4x3 to a TIFF",
        ip::writeAnimatedGif({tagged(""), tagged("", 3, OIIO::TypeFloat, 4, 3)}, temp / "pages.tif",
                             10.0f));
    row("  read back", readBack(temp / "pages.tif"));
}

TEST_F(Writing, MetadataTravelsAsTypedValuesThroughAFile) {
    const auto text = [](const ip::MetadataMap& map) {
        std::string all;
        for (const auto& [name, value] : std::map(map.begin(), map.end()))
            std::visit([&, &name = name](const auto& v) { all += fmt::format("{}={} ", name, v); },
                       value);
        return all;
    };
    ip::Image image = makeGradient(4, 3, 3);
    // OpenEXR's reader states "Linear" whatever was written.
    const ip::MetadataMap written{{"vorel:frame", 42},
                                  {"vorel:exposure", 1.5f},
                                  {"vorel:artist", "Ada"},
                                  {"oiio:ColorSpace", "Linear"}};
    row("added", ip::addMetadataToImage(image, written));
    row("  tag", ip::getColorSpace(image));  // without setColorSpace's warning
    writeWithOIIO(image.buffer, temp / "meta.exr");
    const ip::MetadataMap read = ip::getMetadataFromImage(ip::readImage(temp / "meta.exr"));
    for (const auto& [name, value] : written)
        EXPECT_EQ(read.at(name), value) << name;
    // Arrays become vectors, other types an empty string; vectors don't go back.
    ip::Image other = makeGradient(2, 2, 1);
    const int triple[3] = {7, -8, 9};
    const float single = 0.25f;
    const double ratio = 2.5;
    OIIO::ImageSpec& spec = other.buffer.specmod();
    spec.attribute("vorel:triple", OIIO::TypeDesc(OIIO::TypeDesc::INT32, 3), triple);
    spec.attribute("vorel:single", OIIO::TypeDesc(OIIO::TypeDesc::FLOAT, 1), &single);
    spec.attribute("vorel:one", OIIO::TypeDesc(OIIO::TypeDesc::INT32, 1), triple);
    spec.attribute("vorel:ratio", OIIO::TypeDesc::DOUBLE, &ratio);
    const ip::MetadataMap metadata = ip::getMetadataFromImage(other);
    row("arrays and a double", text(metadata));
    row("  added back", ip::addMetadataToImage(other, metadata));
}

}  // namespace

namespace {

/// A texture as a renderer's reader sees it: every MIP level's size, the tiles, the pixel type,
/// the channels and the colour-space tag, then the digest of level 0 in the file's own type.
std::string readTexture(const fs::path& file) {
    const auto in = OIIO::ImageInput::open(file.string());
    if (!in) {
        OIIO::geterror(true);
        return "no texture";
    }
    const OIIO::ImageSpec top = in->spec();
    std::vector<unsigned char> pixels(top.image_bytes());
    in->read_image(0, 0, 0, top.nchannels, top.format, pixels.data());
    std::vector<std::string> levels;
    std::vector<unsigned char> below;  // the pixels of every smaller level, which the filter made
    for (int level = 0; in->seek_subimage(0, level); ++level) {
        const OIIO::ImageSpec& spec = in->spec();
        levels.push_back(
            fmt::format("{}x{}/{}x{}", spec.width, spec.height, spec.tile_width, spec.tile_height));
        const size_t end = below.size();
        below.resize(end + (level > 0 ? spec.image_bytes() : 0));
        if (level > 0)
            in->read_image(0, level, 0, spec.nchannels, spec.format, below.data() + end);
    }
    // A few float samples are shown as numbers, so that a NaN reads as one.
    const auto* floats = reinterpret_cast<const float*>(pixels.data());
    const std::string level0 =
        top.format == OIIO::TypeFloat && pixels.size() <= 16 * sizeof(float)
            ? fmt::format("{}", fmt::join(floats, floats + pixels.size() / 4, " "))
            : digestOf(pixels);
    // The cache shares textures by the fingerprint of their pixels.
    const bool fingerprint = !top.get_string_attribute("oiio:SHA-1").empty();
    return fmt::format("{}{} {} {} {}ch '{}' level 0 {} below {}",
                       top.get_string_attribute("textureformat"), fingerprint ? " SHA-1" : "",
                       fmt::join(levels, " "), top.format.c_str(), top.nchannels,
                       top.get_string_attribute("oiio:ColorSpace"), level0, digestOf(below));
}

}  // namespace

TEST_F(Writing, TexturesAreTiledMipMappedTaggedAndFailWithOpenImageIOsText) {
    ip::TextureOptions tiles;
    tiles.tileWidth = 32;
    tiles.tileHeight = 16;
    tiles.mipFilter = "lanczos3";
    ip::TextureOptions constant, opaque, gray, latLong, fail, black, box3, filter, format;
    constant.constantColorDetect = true;
    opaque.opaqueDetect = true;
    gray.monochromeDetect = gray.opaqueDetect = true;
    latLong.mode = ip::TextureMode::LatLongEnvironment;
    fail.nanHandling = ip::NanHandling::Fail;
    black.nanHandling = ip::NanHandling::FixBlack;
    box3.nanHandling = ip::NanHandling::FixBox3;
    filter.mipFilter = "no such filter";
    format.dataFormat = "uint7";
    ip::Image flat = tagged("linear", 3, OIIO::TypeFloat, 200, 100);
    OIIO::ImageBufAlgo::fill(flat.buffer, {0.5f, 0.25f, 1.0f});
    ip::Image grayOpaque = tagged("linear", 4, OIIO::TypeFloat, 8, 4);
    OIIO::ImageBufAlgo::channels(grayOpaque.buffer, ip::Image(grayOpaque).buffer, 4, {0, 0, 0, -1},
                                 {0.0f, 0.0f, 0.0f, 1.0f});
    ip::Image nan = tagged("linear", 1, OIIO::TypeFloat, 4, 4);
    const float notANumber = std::numeric_limits<float>::quiet_NaN();
    nan.buffer.setpixel(1, 2, &notANumber);
    // The tag goes as far as the format holds it: TIFF keeps "sRGB" only, OpenEXR says "Linear".
    const std::tuple<const char*, ip::Image, ip::TextureOptions> cases[] = {
        {"a.tx", tagged("sRGB", 3, OIIO::TypeDesc::UINT8, 100, 60), {}},
        {"b.exr", tagged("linear", 4, OIIO::TypeFloat, 100, 60), tiles},
        {"c.TIF", tagged("ACEScg", 1, OIIO::TypeDesc::UINT16, 33, 7), {}},
        {"constant.exr", flat, constant},
        {"nan.exr", nan, {}},
        {"black.exr", nan, black},
        {"box3.exr", nan, box3},
        {"fail.exr", nan, fail},
        {"filter.tx", flat, filter},
        {"format.tx", flat, format},
        {"opaque.exr", grayOpaque, opaque},
        {"gray.exr", grayOpaque, gray},
        {"latlong.exr", grayOpaque, latLong},
        {"scanlines.png", flat, {}}};
    for (const auto& [name, image, options] : cases) {
        row(name, ip::makeTexture(image, temp / name, options));
        row("  read back", readTexture(temp / name));
    }
    // Level 0 is the source itself, and a refused texture leaves no temporary file behind.
    for (const int i : {0, 1}) {
        const std::string texture = readTexture(temp / std::get<0>(cases[i]));
        EXPECT_NE(texture.find(" 0 " + digestOf(std::get<1>(cases[i]).buffer)), std::string::npos);
    }
    for (const auto& entry : fs::directory_iterator(temp))
        EXPECT_EQ(entry.path().string().find(".temp"), std::string::npos) << entry.path();
}

namespace {

std::string bigEndian(std::uint32_t v) {
    return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

/// An ICC profile as libpng takes one (its illuminant D50, 'acsp'), of data colour space `space`,
/// whose tag table claims `count` entries, the first placing a 'desc' tag holding `tag` at
/// `offset` with `size` bytes (0: right after the table, and the tag's own size).
std::string iccProfile(const char* space, const std::string& tag, std::uint32_t count = 1,
                       std::uint32_t offset = 0, std::uint32_t size = 0) {
    std::string header(128, '\0');
    header.replace(0, 4, bigEndian(144 + tag.size())).replace(8, 1, "\x02").replace(12, 4, "mntr");
    header.replace(16, 4, space).replace(20, 4, "XYZ ").replace(36, 4, "acsp");
    header.replace(68, 12, bigEndian(0xF6D6) + bigEndian(0x10000) + bigEndian(0xD32D));
    return header + bigEndian(count) + "desc" + bigEndian(offset ? offset : 144) +
           bigEndian(size ? size : tag.size()) + tag;
}

/// ICC v2's 'desc' of `text`, claiming `count` bytes of it.
std::string descTag(const std::string& text, std::uint32_t count) {
    return "desc" + bigEndian(0) + bigEndian(count) + text;
}

/// ICC v4's 'mluc' of `records` records, the first of whose text of `length` bytes is at `offset`.
std::string mlucTag(const std::u16string& text, std::uint32_t length, std::uint32_t offset = 28,
                    std::uint32_t records = 1) {
    std::string bytes = "mluc" + bigEndian(0) + bigEndian(records) + bigEndian(12) + "enUS" +
                        bigEndian(length) + bigEndian(offset);
    for (const char16_t unit : text)
        bytes += {char(unit >> 8), char(unit)};
    return bytes;
}

void setProfile(ip::Image& image, const std::string& bytes) {
    image.buffer.specmod().attribute("ICCProfile", T(T::UINT8, int(bytes.size())), bytes.data());
}

/// The attributes of a CMYK file that `image` carries, or of an RGB one, ICCProfile by its colour
/// space.
std::string cmykAttributes(const ip::Image& image) {
    std::string found;
    for (const char* name :
         {"tiff:ColorSpace", "tiff:PhotometricInterpretation", "jpeg:ColorSpace",
          "ICCProfile:color_space"})
        if (const OIIO::ParamValue* value = image.buffer.spec().find_attribute(name))
            found += fmt::format("{}={} ", name, value->get_string());
    return found + "ICCProfile=" + ip::getIccProfileInfo(image).colorSpace;
}

}  // namespace

TEST_F(Writing, IccProfilesSayWhatTheyAreAndNothingOutsideTheirBytesIsRead) {
    const std::string p3 = descTag(std::string("Display P3") + '\0', 11);
    const std::u16string srgb = u"sRGB IEC61966-2.1";
    const std::pair<const char*, std::string> cases[] = {
        {"no profile", ""},
        {"too short", iccProfile("RGB ", p3).substr(0, 127)},
        {"v2 desc", iccProfile("RGB ", p3)},
        {"v4 mluc", iccProfile("RGB ", mlucTag(srgb + u'\0', 36))},
        {"Lab, a count of tags beyond the table", iccProfile("Lab ", p3, 0xFFFFFFFF)},
        {"tag past the end", iccProfile("GRAY", p3, 1, 148)},
        {"tag larger than the profile", iccProfile("RGB ", p3, 1, 0, 0xFFFFFFF0)},
        {"text of 4 GB", iccProfile("RGB ", descTag("Display P3", 0xFFFFFFFF))},
        {"record beyond the tag", iccProfile("RGB ", mlucTag(srgb, 36))},
        {"record at 4 GB", iccProfile("RGB ", mlucTag(srgb, 34, 0xFFFFFFF0))},
        {"not ASCII", iccProfile("RGB ", descTag("Gr\xfcn", 4))},
        {"surrogates, paired and lone",
         iccProfile("RGB ",
                    mlucTag(u"\xDC00Gr\u00fcn \U0001F600\xD800" + std::u16string(1, 0), 20))},
    };
    for (const auto& [name, bytes] : cases) {
        ip::Image image = makeGradient(1, 1, 3);
        if (!bytes.empty())
            setProfile(image, bytes);
        const ip::IccProfileInfo icc = ip::getIccProfileInfo(image);
        row(name, fmt::format("'{}' '{}'", icc.colorSpace, icc.description));
    }
}

TEST_F(Writing, ACmykFilesAttributesAreRemovedAndNeverGoIntoATexture) {
    // Read from a CMYK JPEG, the pixels are RGB but the attributes still the file's, and libpng
    // refuses the CMYK profile: once they are removed the same pixels go into a PNG.
    // files/cmyk.jpg is one as Photoshop writes them, made with libjpeg: two pixels of four inks
    // stored inverted (255 is no ink), its ICC profile a CMYK one described as "Coated".
    const ip::Image asRead = ip::readImage(fs::path(VOREL_TEST_FILES) / "cmyk.jpg");
    ip::Image jpeg = asRead;
    row("CMYK JPEG", describe(jpeg) + " " + cmykAttributes(jpeg));
    row("  to a PNG", ip::writeImage(jpeg, temp / "as-read.png"));
    row("  removed", ip::removeCmykAttributes(jpeg));
    row("  left", describe(jpeg) + " " + cmykAttributes(jpeg));
    row("  to a PNG", ip::writeImage(jpeg, temp / "cmyk.png"));
    EXPECT_EQ(describe(ip::readImage(temp / "cmyk.png")), describe(jpeg));
    row("  removed again", ip::removeCmykAttributes(jpeg));
    // An RGB file's attributes stay, its profile goes into a PNG.
    ip::Image rgb = makeGradient(2, 1, 3, T::UINT8);
    setProfile(rgb, iccProfile("RGB ", descTag("Display P3", 10)));
    rgb.buffer.specmod().attribute("tiff:PhotometricInterpretation", 2);
    rgb.buffer.specmod().attribute("jpeg:ColorSpace", "YCbCr");
    row("RGB removed", ip::removeCmykAttributes(rgb));
    row("  left", cmykAttributes(rgb));
    row("  to a PNG", ip::writeImage(rgb, temp / "rgb.png"));
    row("  read back", cmykAttributes(ip::readImage(temp / "rgb.png")));
    // OpenImageIO writes a TIFF of "tiff:ColorSpace" "CMYK" separated; a tiled one of those would
    // abort OpenImageIO 2.4.7's reader, so its header is checked before any pixel is read.
    ip::Image tiff = makeGradient(8, 4, 3, T::UINT8);
    tiff.buffer.specmod().attribute("tiff:ColorSpace", "CMYK");
    writeWithOIIO(tiff.buffer, temp / "cmyk.tif");
    const ip::Image separated = ip::readImage(temp / "cmyk.tif");
    for (const auto& [name, source] : {std::pair{"tiff.tx", &separated}, {"jpeg.tx", &asRead}}) {
        row(name, ip::makeTexture(*source, temp / name));
        const auto in = OIIO::ImageInput::open((temp / name).string());
        ASSERT_TRUE(in);
        ip::Image header;
        header.buffer.reset(in->spec(), OIIO::InitializePixels::No);
        row("  texture", cmykAttributes(header));
        ASSERT_EQ(in->spec().get_int_attribute("tiff:PhotometricInterpretation"), 2);
        row("  read back", readTexture(temp / name));  // level 0 has the source's digest
        row("  source", cmykAttributes(*source));
    }
}
