// The three banners drawn for real: PNGs made with ffmpeg at test time, real
// fonts, and the Ombrel banner's texture read back from headless OpenGL.
// Placements are checked exactly against the same pictures blended where the
// layout puts them; the whole is a golden picture.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "common/gl_context.h"
#include "common/golden.h"
#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "lumets/host/gl_objects.h"
#include "lumets_common/pixel_ops.h"
#include "text/text_renderer.h"
#include "weird/weird_subtitle_manager.h"

namespace lumets {
namespace {

using test::Quote;
using test::RunCommand;

// The test's images, made once.
class BannerFiles : public ::testing::Environment {
  public:
    void SetUp() override {
        ASSERT_TRUE(m_dir.Ok());
        Make("image1.png", "color=c=0x3060C0@0.8:s=200x40");
        Make("image2.png", "color=c=0xC08030@0.9:s=300x48");
        Make("plate.png", "color=c=0x205020@0.85:s=240x96");
        Make("caps.png", "testsrc2=s=40x36");
        Make("middle.png", "color=c=0x802040:s=800x36");
        Make("middle_rgb.png", "color=c=0x802040:s=800x36", "rgb24");
        Make("big.png", "color=c=black:s=4097x4096", "rgb24");
        ASSERT_TRUE(test::WriteBytes(m_dir.File("corrupt.png"), {0x89, 'P', 'N', 'G', 1, 2, 3}));
        // A PNG whose header claims 20000 x 20000 pixels over a few bytes of data.
        ASSERT_TRUE(RunCommand(
            "python3 -c 'import struct, sys, zlib\n"
            "def chunk(t, d): return struct.pack(\">I\", len(d)) + t + d + struct.pack(\">I\", "
            "zlib.crc32(t + d))\n"
            "sys.stdout.buffer.write(b\"\\x89PNG\\r\\n\\x1a\\n\" + chunk(b\"IHDR\", "
            "struct.pack(\">IIBBBBB\", 20000, 20000, 8, 6, 0, 0, 0)) + chunk(b\"IDAT\", "
            "zlib.compress(bytes(4096))) + chunk(b\"IEND\", b\"\"))' > " +
            Quote(m_dir.File("huge.png"))));
    }
    // Caps of a given width, left half red and right half green.
    std::u16string Caps(int width) {
        const std::string name = "caps" + std::to_string(width) + ".png";
        const std::string half = std::to_string(width / 2);
        Make(name, "color=c=red:s=" + std::to_string(width) + "x36,format=rgba,geq=r=if(lt(X\\," +
                       half + ")\\,255\\,0):g=if(lt(X\\," + half + ")\\,0\\,255):b=0:a=255");
        return Path(name);
    }
    std::u16string Path(const std::string& name) const { return m_dir.File16(name); }

  private:
    void Make(const std::string& name, const std::string& source,
              const std::string& format = "rgba") {
        ASSERT_TRUE(RunCommand("ffmpeg -nostdin -v error -y -f lavfi -i " + Quote(source) +
                               " -frames:v 1 -pix_fmt " + format + " " + Quote(m_dir.File(name))));
    }
    test::ScratchDir m_dir;
};
BannerFiles* const g_files =
    static_cast<BannerFiles*>(::testing::AddGlobalTestEnvironment(new BannerFiles()));

std::u16string P(const std::string& name) {
    return g_files->Path(name);
}

// A 24-bit bottom-up frame with a few guard bytes after it.
struct Frame {
    Frame(int32_t w, int32_t h, uint8_t fill = 0x40)
        : width(w), height(h), bytes(size_t{RowStride(w, 24)} * h + 16, fill) {}
    PictureView View() { return PackedPicture(bytes.data(), width, height, 24); }
    int32_t width;
    int32_t height;
    std::vector<uint8_t> bytes;
};

PixelBuffer Load(const std::string& name) {
    PixelBuffer buffer;
    LoadImageFile(buffer, P(name).c_str());
    return buffer;
}

TextStyle Style(const char16_t* face, int32_t size, bool bold, uint32_t colour) {
    TextStyle style;
    std::copy_n(face, std::char_traits<char16_t>::length(face), style.faceName);
    style.fontSize = size;
    style.bold = bold;
    style.fillColor1 = colour;
    return style;
}

// Blends text in style at (x, y), x naming the centre when centred.
void BlendText(const PictureView& frame, const char16_t* text, const TextStyle& style, int32_t x,
               int32_t y, bool centred) {
    CTextRenderer renderer;
    renderer.Render(text, &style);
    renderer.BlendInto(frame, POINT{centred ? x - renderer.GetSize().cx / 2 : x, y});
}

const char16_t* const kTavrinTexts[6] = {u"主播", u"嘉宾", u"连麦中", u"PK 3:2", u"甲", u"乙乙"};

// Every banner ready with the test's texts and images.
void SetUpAll(IWeirdSubtitleManager* m, int reserved = 0) {
    m->SetTavrinTexts(kTavrinTexts[0], kTavrinTexts[1], kTavrinTexts[2], kTavrinTexts[3],
                      kTavrinTexts[4], kTavrinTexts[5]);
    m->LoadTavrinImages(P("image1.png").c_str(), P("image2.png").c_str());
    m->SetQuellinTexts(u"第 3 关", u"得分 12800", reserved);
    m->LoadQuellinPlate(P("plate.png").c_str());
    m->SetOmbrelText(u"Ombrel 冠军 ✨", 20);
    m->LoadOmbrelImages(P("caps.png").c_str(), P("middle.png").c_str());
}

struct Manager {
    Manager() : m(CreateWeirdSubtitleManager()) {}
    ~Manager() { DeleteWeirdSubtitleManager(m); }
    IWeirdSubtitleManager* operator->() const { return m; }
    IWeirdSubtitleManager* m;
};

TEST(Banners, TavrinAndQuellinLandWhereTheLayoutPutsThem) {
    Manager manager;
    SetUpAll(manager.m, 12345);  // the reserved value is never read
    const POINT tavrin{30, 200};
    const POINT quellin{700, 40};
    Frame frame(1280, 720);
    manager->ComposeTavrin(frame.bytes.data(), 1280, 720, &tavrin);
    manager->ComposeQuellin(frame.bytes.data(), 1280, 720, &quellin);

    Frame want(1280, 720);
    BlendAt(want.View(), POINT{34, 222}, Load("image1.png").View());
    BlendAt(want.View(), POINT{246, 216}, Load("image2.png").View());
    const char16_t* yahei = u"微软雅黑";
    const TextStyle styles[4] = {Style(yahei, 14, true, 0x3A3A3A), Style(yahei, 14, true, 0x3B85FF),
                                 Style(yahei, 14, true, 0xFFBB2A),
                                 Style(yahei, 14, true, 0xFFFFFF)};
    const struct {
        int style, column, row;
    } places[6] = {{0, 118, 26}, {0, 154, 26}, {1, 293, 5},
                   {2, 460, 5},  {3, 287, 25}, {3, 467, 25}};
    for (int i = 0; i < 6; ++i) {
        TextStyle style = styles[places[i].style];
        style.backColor = places[i].style == 3 ? 0 : style.backColor;
        BlendText(want.View(), kTavrinTexts[i], style, 30 + places[i].column, 200 + places[i].row,
                  true);
    }
    BlendAt(want.View(), quellin, Load("plate.png").View());
    BlendText(want.View(), u"第 3 关", Style(u"黑体", 16, false, 0x89E3F7), 700 + 104, 63, true);
    BlendText(want.View(), u"得分 12800", Style(u"黑体", 16, false, 0xDFF9FF), 736, 105, false);
    EXPECT_TRUE(frame.bytes == want.bytes);
    EXPECT_TRUE(frame.bytes != Frame(1280, 720).bytes);
}

// Caps chosen so that with the text the plate is exactly 140 x 36 (or 141
// with an odd caps width), as in the layout's own examples.
class OmbrelTest : public test::GlTest<320, 240> {
  protected:
    // The width of the text picture, read through a texture upload.
    int32_t TextWidth() {
        COmbrelGameSubtitle probe;
        probe.SetText(kText, 16);
        probe.LoadImages(P("caps.png").c_str(), P("middle.png").c_str());
        return UploadedWidth(probe) - 40;
    }
    static int32_t UploadedWidth(COmbrelGameSubtitle& banner) {
        const GLuint texture = CGLObjectFactory::CreateTexture();
        IPBO* pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        int32_t width = -1;
        int32_t height = -1;
        banner.DrawToTexture(texture, &width, &height, pbo);
        CGLObjectFactory::DestroyPBO(pbo);
        glDeleteTextures(1, &texture);
        return width;
    }
    static constexpr const char16_t* kText = u"Ombrel 冠军";
};

TEST_F(OmbrelTest, PlatePiecesPlacementScaleAndTexture) {
    const int32_t t = TextWidth();
    ASSERT_GT(t, 20);
    ASSERT_LT(t, 130);
    for (const int32_t plateWidth : {140, 141}) {
        SCOPED_TRACE(plateWidth);
        const int32_t a = plateWidth - t;
        COmbrelGameSubtitle banner;
        banner.SetText(kText, 16);
        banner.LoadImages(g_files->Caps(a).c_str(), P("middle.png").c_str());
        Frame frame(640, 480);
        const RECT rect{100, 50, 400, 150};
        banner.Compose(PackedFrame24(frame.bytes.data(), 640, 480), &rect, 1.0f);

        // The pieces: caps halves at both ends, the middle strip between.
        const PixelBuffer& plate = banner.Plate();
        ASSERT_EQ(std::pair(plate.width, plate.height), std::pair(plateWidth, 36));
        const int32_t right = plateWidth / 2 + t / 2;
        const PixelBuffer middleImage = Load("middle.png");
        const uint8_t* middle = middleImage.Data();
        for (int32_t x = 0; x < plateWidth; ++x) {
            const uint8_t* p = plate.Data() + size_t{4} * (10 * plateWidth + x);
            // With an even caps width and an odd text the right end stops one
            // column short; the new plate block is transparent there.
            if (a % 2 == 0 && t % 2 == 1 && x == plateWidth - 1) {
                EXPECT_EQ(p[3], 0);
                continue;
            }
            const bool red = x < a / 2;
            const bool green = x >= right;
            EXPECT_EQ(p[2], red ? 255 : green ? 0 : middle[2]) << x;
            EXPECT_EQ(p[1], green ? 255 : red ? 0 : middle[1]) << x;
            EXPECT_EQ(p[3], 255) << x;
        }
        // The plate's top-left corner at (180, 82) top-down; the text over it.
        Frame want(640, 480);
        BlendAt(want.View(), POINT{180, 480 - 82 - 36}, plate.View());
        const TextStyle style = [] {
            TextStyle s = Style(u"微软雅黑", 16, false, 0xDFF9FF);
            s.fillColor2 = 0xDFF9FF;
            return s;
        }();
        CTextRenderer text;
        text.Render(kText, &style);
        const SIZE size = text.GetSize();
        const POINT at{static_cast<int32_t>(250.0f - static_cast<float>(t) / 2.0f),
                       static_cast<int32_t>(100.0f - static_cast<float>(size.cy) / 2.0f)};
        text.BlendScaledIntoFrame(want.View(), rect, at, 1.0f);
        EXPECT_TRUE(frame.bytes == want.bytes);

        // At 0.5 the plate is scaled to 70 x 18 and centred: the changed
        // pixels start at x = 215 and row 91.
        Frame half(640, 480);
        banner.Compose(PackedFrame24(half.bytes.data(), 640, 480), &rect, 0.5f);
        int32_t left = 640, top = 480;
        for (int32_t y = 0; y < 480; ++y) {
            for (int32_t x = 0; x < 640; ++x) {
                const uint8_t* p = &half.bytes[size_t{RowStride(640, 24)} * (479 - y) + x * 3];
                if (p[0] != 0x40 || p[1] != 0x40 || p[2] != 0x40) {
                    left = std::min(left, x);
                    top = std::min(top, y);
                }
            }
        }
        EXPECT_EQ(std::pair(left, top), std::pair(215, 91));

        // The texture holds the plate with the text at (W/2 - T/2, H/2 - V/2).
        PixelBuffer expected;
        expected.Ensure(plateWidth, 36, 32);
        expected.width = plateWidth;
        expected.height = 36;
        std::copy_n(plate.Data(), size_t{4} * plateWidth * 36, expected.Data());
        text.BlendInto(expected.View(), POINT{plateWidth / 2 - t / 2, 18 - size.cy / 2});
        const GLuint texture = CGLObjectFactory::CreateTexture();
        IPBO* pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        int32_t width = 0, height = 0;
        banner.DrawToTexture(texture, &width, &height, pbo);
        ASSERT_EQ(std::pair(width, height), std::pair(plateWidth, 36));
        std::vector<uint8_t> pixels(size_t{4} * plateWidth * 36);
        ASSERT_TRUE(
            pbo->Download(texture, pixels.data(), static_cast<uint32_t>(pixels.size()), GL_BGRA));
        EXPECT_TRUE(std::equal(pixels.begin(), pixels.end(), expected.Data()));
        CGLObjectFactory::DestroyPBO(pbo);
        glDeleteTextures(1, &texture);
    }
}

// Every refusal leaves the frame as it was and the outputs alone.
TEST(Banners, RefusalsAndBadInputDrawNothing) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        const char* name;
        void (*prepare)(IWeirdSubtitleManager*);
        POINT origin{10, 10};
        RECT rect{0, 0, 320, 200};
        float scale = 1.0f;
        int32_t width = 320;
        int32_t height = 200;
    };
    const auto ready = [](IWeirdSubtitleManager* m) { SetUpAll(m); };
    const Case cases[] = {
        {"nothing set", [](IWeirdSubtitleManager*) {}},
        {"no images",
         [](IWeirdSubtitleManager* m) {
             m->SetTavrinTexts(u"a", u"b", u"c", u"d", u"e", u"f");
             m->SetQuellinTexts(u"a", u"b", 0);
             m->SetOmbrelText(u"a", 16);
         }},
        {"one image of each missing or bad",
         [](IWeirdSubtitleManager* m) {
             m->SetTavrinTexts(u"a", u"b", u"c", u"d", u"e", u"f");
             m->LoadTavrinImages(P("image1.png").c_str(), P("missing.png").c_str());
             m->SetQuellinTexts(u"a", u"b", 0);
             m->LoadQuellinPlate(P("huge.png").c_str());
             m->LoadQuellinPlate(P("corrupt.png").c_str());
             m->SetOmbrelText(u"a", 16);
             m->LoadOmbrelImages(P("big.png").c_str(), P("").c_str());
         }},
        {"empty Ombrel text, no Tavrin or Quellin images",
         [](IWeirdSubtitleManager* m) {
             m->SetOmbrelText(u"a", 16);
             m->LoadOmbrelImages(P("caps.png").c_str(), P("middle.png").c_str());
             m->SetOmbrelText(u"", 16);
             m->LoadTavrinImages(nullptr, nullptr);
         }},
        {"negative origin and rectangle", ready, {-1, 5}, {0, -1, 320, 200}},
        {"zero-sized frame", ready, {0, 0}, {0, 0, 320, 200}, 1.0f, 0, 0},
        {"negative frame", ready, {0, 0}, {0, 0, 320, 200}, 1.0f, -320, 200},
        {"origin and rectangle far out",
         ready,
         {INT32_MAX, INT32_MAX},
         {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX}},
        {"zero scale", ready, {INT32_MAX, 0}, {0, 0, 320, 200}, 0.0f},
        {"negative scale", ready, {INT32_MAX, 0}, {0, 0, 320, 200}, -1.0f},
        {"NaN scale", ready, {INT32_MAX, 0}, {0, 0, 320, 200}, nan},
        {"infinite scale", ready, {INT32_MAX, 0}, {0, 0, 320, 200}, inf},
        {"tiny scale", ready, {INT32_MAX, 0}, {0, 0, 320, 200}, 1e-30f},
        {"huge scale", ready, {INT32_MAX, 0}, {0, 0, 320, 200}, 1e30f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Manager manager;
        c.prepare(manager.m);
        Frame frame(320, 200);
        const std::vector<uint8_t> before = frame.bytes;
        manager->ComposeTavrin(frame.bytes.data(), c.width, c.height, &c.origin);
        manager->ComposeQuellin(frame.bytes.data(), c.width, c.height, &c.origin);
        manager->ComposeOmbrel(frame.bytes.data(), c.width, c.height, &c.rect, c.scale);
        EXPECT_TRUE(frame.bytes == before);
    }
}

// Hostile texts, sizes and frames: nothing crashes or writes outside.
TEST(Banners, HostileTextsSizesAndFramesStayInside) {
    auto block = std::make_unique<char16_t[]>(CTextRenderer::kMaxTextUnits);
    std::fill_n(block.get(), CTextRenderer::kMaxTextUnits, u'W');  // no terminator
    const std::u16string caps = P("caps.png");
    for (const int32_t fontSize : {0, -16, 1 << 30}) {
        SCOPED_TRACE(fontSize);
        Manager manager;
        manager->SetTavrinTexts(nullptr, u"", block.get(), nullptr, u"x", block.get());
        manager->LoadTavrinImages(P("image1.png").c_str(), P("image2.png").c_str());
        manager->SetQuellinTexts(block.get(), nullptr, -1);
        manager->LoadQuellinPlate(P("middle_rgb.png").c_str());
        manager->SetOmbrelText(block.get(), fontSize);
        manager->LoadOmbrelImages(caps.c_str(), P("middle_rgb.png").c_str());
        manager->SetOmbrelText(nullptr, fontSize);  // counts as empty
        manager->ComposeOmbrel(nullptr, 1, 1, nullptr, 1.0f);
        manager->SetOmbrelText(u"W", fontSize);
        for (const auto& [w, h] : {std::pair(1, 1), std::pair(33, 17), std::pair(641, 3)}) {
            Frame frame(w, h);
            const std::vector<uint8_t> guard(frame.bytes.end() - 16, frame.bytes.end());
            const POINT origin{0, 0};
            const RECT rect{0, 0, INT32_MAX, INT32_MAX};
            manager->ComposeTavrin(frame.bytes.data(), w, h, &origin);
            manager->ComposeQuellin(frame.bytes.data(), w, h, &origin);
            manager->ComposeOmbrel(frame.bytes.data(), w, h, &rect, 1.5f);
            manager->ComposeTavrin(nullptr, w, h, &origin);
            manager->ComposeOmbrel(nullptr, w, h, &rect, 1.0f);
            EXPECT_TRUE(std::equal(guard.begin(), guard.end(), frame.bytes.end() - 16));
        }
        int32_t width = 7;
        manager->DrawOmbrelToTexture(0, &width, &width, nullptr);
        manager->DrawOmbrelToTexture(5, nullptr, nullptr, nullptr);
        EXPECT_EQ(width, 7);
    }
}

}  // namespace
}  // namespace lumets
