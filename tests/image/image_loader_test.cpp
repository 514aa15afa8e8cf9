// Loading real image files, made here with ffmpeg from known pixels, into
// PixelBuffers: which formats load at which depth with which bytes, and which
// are refused without touching the target; and the library's own resource.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "image/resources.h"
#include "lumets_platform/utf16.h"

namespace lumets::test {
namespace {

// ffmpeg with a raw picture as input: rawFormat and size describe raw, the
// rest of the arguments (codec, pixel format) come before the output.
bool EncodeRaw(const std::string& raw, const std::string& rawFormat, int width, int height,
               const std::string& outputArgs, const std::string& output) {
    return RunCommand("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt " + rawFormat + " -s " +
                      std::to_string(width) + "x" + std::to_string(height) + " -i " + Quote(raw) +
                      " " + outputArgs + " -frames:v 1 " + Quote(output));
}

// "codec,pix_fmt" of the first video stream as ffprobe sees the file.
std::string Probe(const std::string& file) {
    RunCommand(
        "ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,pix_fmt "
        "-of csv=p=0 " +
        Quote(file) + " > " + Quote(file + ".probe"));
    const std::vector<uint8_t> out = ReadBytes(file + ".probe");
    return std::string(out.begin(), std::find(out.begin(), out.end(), '\n'));
}

void LoadFile(PixelBuffer& target, const std::string& file) {
    LoadImageFile(target, platform::Utf8ToU16(file).c_str());
}

// Everything a load may change, with the bytes in use.
struct Snapshot {
    const uint8_t* data;
    size_t capacity;
    int32_t width;
    int32_t height;
    int32_t bitsPerPixel;
    std::vector<uint8_t> bytes;

    explicit Snapshot(const PixelBuffer& b)
        : data(b.Data()),
          capacity(b.Capacity()),
          width(b.width),
          height(b.height),
          bitsPerPixel(b.bitsPerPixel),
          bytes(b.Data(), b.Data() + b.Capacity()) {}

    bool operator==(const Snapshot&) const = default;
};

struct Rgba {
    uint8_t r, g, b, a;
};

// A picture in top-down order, as the encoders see it.
struct Picture {
    int width;
    int height;
    std::vector<Rgba> pixels;
    Rgba At(int x, int y) const { return pixels[static_cast<size_t>(y) * width + x]; }
};

// Every pixel different, alpha never 0 (so lossless WebP keeps the colours).
Picture VariedPicture() {
    Picture p{5, 3, {}};
    for (int y = 0; y < p.height; ++y) {
        for (int x = 0; x < p.width; ++x) {
            p.pixels.push_back(
                {static_cast<uint8_t>(10 + 50 * x), static_cast<uint8_t>(20 + 80 * y),
                 static_cast<uint8_t>(230 - 40 * x), static_cast<uint8_t>(255 - 60 * y - 15 * x)});
        }
    }
    return p;
}

// Two flat halves split on a 16-row boundary, so that lossy codecs, whose
// blocks then hold one colour each, give nearly the exact values.
Picture TwoTonePicture() {
    Picture p{32, 32, {}};
    for (int y = 0; y < p.height; ++y) {
        for (int x = 0; x < p.width; ++x) {
            p.pixels.push_back(y < 16 ? Rgba{200, 60, 30, 90} : Rgba{40, 150, 220, 220});
        }
    }
    return p;
}

// The picture as raw bytes in one of ffmpeg's pixel formats, described by its
// channels in order (upper case: 16 bits big-endian, value * 257).
std::vector<uint8_t> Raw(const Picture& p, const std::string& format) {
    static const std::map<std::string, std::string> kChannels = {
        {"rgba", "rgba"}, {"bgra", "bgra"}, {"rgb24", "rgb"},     {"bgr24", "bgr"},
        {"ya8", "ra"},    {"ya16be", "RA"}, {"rgba64be", "RGBA"}, {"rgb48be", "RGB"}};
    std::vector<uint8_t> out;
    for (const Rgba& c : p.pixels) {
        for (const char channel : kChannels.at(format)) {
            const char lower = static_cast<char>(std::tolower(channel));
            const uint8_t v = lower == 'r' ? c.r : lower == 'g' ? c.g : lower == 'b' ? c.b : c.a;
            out.insert(out.end(), std::isupper(channel) ? 2 : 1, v);
        }
    }
    return out;
}

// What one file must load as.
struct LoadCase {
    const char* name;
    bool twoTone;            // TwoTonePicture, else VariedPicture
    const char* rawFormat;   // what ffmpeg reads
    const char* outputArgs;  // encoder and its pixel format
    const char* extension;
    const char* probed;  // codec and decoded format, as measured
    int32_t depth;       // 24 or 32
    bool grey;           // B = G = R = the picture's red
    bool keepsAlpha;     // else 32-bit pictures come out opaque
    int tolerance;       // largest channel difference; 0 for lossless codecs
};

const LoadCase kLoadCases[] = {
    {"RgbaPng", false, "rgba", "-c:v png -pix_fmt rgba", "png", "png,rgba", 32, false, true, 0},
    {"GreyAlphaPng", false, "ya8", "-c:v png -pix_fmt ya8", "png", "png,ya8", 32, true, true, 0},
    {"GreyAlpha16Png", false, "ya16be", "-c:v png -pix_fmt ya16be", "png", "png,ya16be", 32, true,
     true, 0},
    {"Rgba64Png", false, "rgba64be", "-c:v png -pix_fmt rgba64be", "png", "png,rgba64be", 32, false,
     true, 0},
    {"WebpLosslessAlpha", false, "rgba", "-c:v libwebp -lossless 1", "webp", "webp,argb", 32, false,
     true, 0},
    {"WebpLossyAlpha", true, "rgba", "-c:v libwebp -lossless 0 -quality 95 -pix_fmt yuva420p",
     "webp", "webp,yuva420p", 32, false, true, 6},
    {"WebpLossy", true, "rgb24", "-c:v libwebp -lossless 0 -quality 95 -pix_fmt yuv420p", "webp",
     "webp,yuv420p", 24, false, false, 6},
    {"RgbPng", false, "rgb24", "-c:v png -pix_fmt rgb24", "png", "png,rgb24", 24, false, false, 0},
    {"Rgb48Png", false, "rgb48be", "-c:v png -pix_fmt rgb48be", "png", "png,rgb48be", 32, false,
     false, 0},
    {"Jpeg420", true, "rgb24", "-c:v mjpeg -q:v 2 -pix_fmt yuvj420p", "jpg", "mjpeg,yuvj420p", 24,
     false, false, 4},
    {"Bmp24", false, "bgr24", "-c:v bmp -pix_fmt bgr24", "bmp", "bmp,bgr24", 24, false, false, 0},
    {"Bmp32", false, "bgra", "-c:v bmp -pix_fmt bgra", "bmp", "bmp,bgra", 32, false, true, 0},
    {"TiffRgba", false, "rgba", "-c:v tiff -pix_fmt rgba", "tif", "tiff,rgba", 32, false, true, 0},
};

// One scratch folder for the whole suite, removed at exit.
const ScratchDir& Dir() {
    static const ScratchDir dir;
    return dir;
}

class ImageFormats : public testing::TestWithParam<LoadCase> {};

TEST_P(ImageFormats, LoadsAtItsDepthBottomRowFirst) {
    const LoadCase& c = GetParam();
    const Picture picture = c.twoTone ? TwoTonePicture() : VariedPicture();
    const std::string raw = Dir().File(std::string(c.name) + ".raw");
    const std::string file = Dir().File(std::string(c.name) + "." + c.extension);
    WriteBytes(raw, Raw(picture, c.rawFormat));
    ASSERT_TRUE(EncodeRaw(raw, c.rawFormat, picture.width, picture.height, c.outputArgs, file));
    ASSERT_EQ(Probe(file), c.probed) << "the encoder no longer makes the format this case is for";

    PixelBuffer b;
    LoadFile(b, file);
    ASSERT_NE(b.Data(), nullptr);
    EXPECT_EQ(b.bitsPerPixel, c.depth);
    ASSERT_EQ(b.width, picture.width);
    ASSERT_EQ(b.height, picture.height);
    const size_t stride = b.View().strideBytes;
    EXPECT_EQ(b.Capacity(), stride * b.height + 1);

    // Lossy codecs subsample colour, which smears the edge between the two
    // halves of the picture: their rows near it (top-down 12..19) are not
    // compared.
    const int bytesPerPixel = static_cast<int>(c.depth / 8);
    for (int row = 0; row < picture.height; ++row) {
        for (int x = 0; x < picture.width; ++x) {
            // Buffer row 0 is the picture's bottom row.
            const int topDownRow = picture.height - 1 - row;
            if (c.twoTone && topDownRow >= 12 && topDownRow < 20) {
                continue;
            }
            const Rgba want = picture.At(x, topDownRow);
            const uint8_t wantBgra[4] = {c.grey ? want.r : want.b, c.grey ? want.r : want.g, want.r,
                                         c.keepsAlpha ? want.a : uint8_t{255}};
            const uint8_t* got = b.Data() + stride * row + x * bytesPerPixel;
            for (int channel = 0; channel < bytesPerPixel; ++channel) {
                ASSERT_LE(std::abs(got[channel] - wantBgra[channel]), c.tolerance)
                    << "buffer row " << row << ", column " << x << ", channel " << channel;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Table, ImageFormats, testing::ValuesIn(kLoadCases),
                         [](const testing::TestParamInfo<LoadCase>& info) {
                             return std::string(info.param.name);
                         });

// A file from the varied picture, checked to decode as probed.
std::string Make(const std::string& name, const std::string& outputArgs,
                 const std::string& probed) {
    static const std::string raw = [] {
        const std::string file = Dir().File("varied.rgb");
        WriteBytes(file, Raw(VariedPicture(), "rgb24"));
        return file;
    }();
    const std::string file = Dir().File(name);
    EXPECT_TRUE(EncodeRaw(raw, "rgb24", 5, 3, outputArgs, file));
    EXPECT_EQ(Probe(file), probed);
    return file;
}

// Loads file into a target that already holds a picture and expects every
// field and byte of it to stay as it was.
void ExpectUntouched(const std::string& file) {
    static const std::string loadable = Make("loadable.png", "-pix_fmt rgba", "png,rgba");
    PixelBuffer target;
    LoadFile(target, loadable);
    ASSERT_NE(target.Data(), nullptr);
    const Snapshot before(target);
    LoadFile(target, file);
    EXPECT_TRUE(Snapshot(target) == before) << file << " changed the target";
}

TEST(RefusedImages, PaletteGreyAndSixteenBitFormats) {
    // GIF decodes to bgra, so it also proves the refusal goes by codec; the
    // others have no rule, one of each codec.
    const char* const refused[][3] = {
        {"a.gif", "", "gif,bgra"},
        {"pal.png", "-pix_fmt pal8", "png,pal8"},
        {"grey.png", "-pix_fmt gray", "png,gray"},
        {"rgb565.bmp", "-pix_fmt rgb565le", "bmp,rgb565le"},
        {"grey.tif", "-c:v tiff -pix_fmt gray", "tiff,gray"},
    };
    for (const auto& r : refused) {
        ExpectUntouched(Make(r[0], r[1], r[2]));
    }
}

TEST(RefusedImages, FilesThatAreNotPictures) {
    ExpectUntouched(Dir().File("does-not-exist.png"));
    ExpectUntouched(Dir().File(""));  // the scratch directory itself

    const std::string empty = Dir().File("empty.png");
    WriteBytes(empty, {});
    ExpectUntouched(empty);

    const std::string text = Dir().File("text.png");
    WriteBytes(text, {'n', 'o', 't', ' ', 'a', 'n', ' ', 'i', 'm', 'a', 'g', 'e'});
    ExpectUntouched(text);

    // A FIFO with no writer must neither block the load nor be read.
    const std::string fifo = Dir().File("fifo.png");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ExpectUntouched(fifo);

    PixelBuffer target;
    LoadFile(target, Make("loadable.png", "-pix_fmt rgba", "png,rgba"));
    const Snapshot before(target);
    LoadImageFile(target, nullptr);
    LoadImageFile(target, u"");
    LoadImageBytes(target, nullptr, 100);
    CopyImageToBuffer(target, nullptr);
    EXPECT_TRUE(Snapshot(target) == before);
}

// Sizes at and just past the pixel limit, as real files: the refusal comes
// from the limit, not from bad data. Thin strips load whatever their length.
TEST(RefusedImages, PicturesBeyondThePixelLimit) {
    auto blank = [](int width, int height) {
        const std::string file =
            Dir().File(std::to_string(width) + "x" + std::to_string(height) + ".png");
        EXPECT_TRUE(RunCommand("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt rgb24 -s " +
                               std::to_string(width) + "x" + std::to_string(height) +
                               " -i /dev/zero -frames:v 1 " + Quote(file)));
        return file;
    };
    ExpectUntouched(blank(4097, 4096));  // 16,781,312 pixels
    const std::pair<int, int> loadable[] = {{1, 20000}, {4096, 4096}};
    for (const auto& [width, height] : loadable) {
        PixelBuffer target;
        LoadFile(target, blank(width, height));
        EXPECT_EQ(std::tuple(target.width, target.height, target.bitsPerPixel),
                  std::tuple(width, height, 24));
    }
}

// The library's own image resource: the plate's corner mask.
TEST(Resources, MaskIsFoundByModuleIdAndTypeOnly) {
    EXPECT_FALSE(FindModuleResource(u"Lumets.dll", 101, u"PNG").empty());
    // Windows compares module and type names without regard to case.
    EXPECT_FALSE(FindModuleResource(u"LUMETS.DLL", 101, u"png").empty());

    EXPECT_TRUE(FindModuleResource(u"Lumets.dll", 102, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"Lumets.dll", 101, u"JPG").empty());
    EXPECT_TRUE(FindModuleResource(u"Other.dll", 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"liblumets.so", 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"Lumets.dll ", 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(nullptr, 101, u"PNG").empty());
    EXPECT_TRUE(FindModuleResource(u"Lumets.dll", 101, nullptr).empty());
}

TEST(Resources, MaskLoadsAsForty36ThirtyTwoBitPictureAndOnlyIt) {
    PixelBuffer b;
    LoadImageResource(b, u"Lumets.dll", 101, u"PNG");
    ASSERT_NE(b.Data(), nullptr);
    EXPECT_EQ(b.width, 40);
    EXPECT_EQ(b.height, 36);
    EXPECT_EQ(b.bitsPerPixel, 32);
    EXPECT_EQ(b.Capacity(), 5761u);  // its pixels shape the plate goldens' corners

    // Unknown resources leave the target alone.
    const Snapshot before(b);
    LoadImageResource(b, u"Lumets.dll", 100, u"PNG");
    LoadImageResource(b, u"Other.dll", 101, u"PNG");
    LoadImageResource(b, nullptr, 101, nullptr);
    EXPECT_TRUE(Snapshot(b) == before);
}

}  // namespace
}  // namespace lumets::test
