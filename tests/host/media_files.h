// Short animations made with the ffmpeg command-line tool at test time, once
// per test program, in a temporary folder. Every frame is solid and known:
// frame i has colour kColours[i % 5]; where a format carries alpha, the picture
// is split into an opaque part, a half-transparent part (APNG, WebP) and a
// transparent part, so blending can be checked exactly.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/scratch_files.h"

namespace lumets::test {

struct Bgr {
    uint8_t b, g, r;
};

// Pure primaries and their sums survive every format, GIF's 3-3-2 palette included.
inline constexpr std::array<Bgr, 5> kColours = {{
    {0, 0, 255},    // red
    {0, 255, 0},    // green
    {255, 0, 0},    // blue
    {0, 255, 255},  // yellow
    {255, 0, 255},  // magenta
}};

inline constexpr int kMovieWidth = 64;
inline constexpr int kMovieHeight = 48;
inline constexpr int kFrames = 5;
inline constexpr int kFps = 10;
inline constexpr uint64_t kPassMs = kFrames * 1000 / kFps;
inline constexpr uint8_t kHalfAlpha = 128;

// Alpha by region, top-down: rows above half the height opaque; below it, the
// left half kHalfAlpha (or opaque where half is false) and the right half 0.
inline uint8_t AlphaAt(int x, int y, bool half) {
    if (y < kMovieHeight / 2) {
        return 255;
    }
    if (x < kMovieWidth / 2) {
        return half ? kHalfAlpha : 255;
    }
    return 0;
}

class MediaFiles : public ::testing::Environment {
  public:
    static MediaFiles& Instance() {
        static MediaFiles* files = new MediaFiles();
        return *files;
    }

    std::string Path(const std::string& name) const { return m_dir.File(name); }
    std::u16string Path16(const std::string& name) const {
        const std::string path = Path(name);
        return std::u16string(path.begin(), path.end());  // the temp folder is ASCII
    }

    void SetUp() override {
        ASSERT_TRUE(m_dir.Ok());
        WriteRaw("half.bgra", true, kFrames);
        WriteRaw("cut.bgra", false, kFrames);
        const std::string raw = "-f rawvideo -pix_fmt bgra -s 64x48 -r ";
        Make(raw + "10 -i half.bgra -c:v apng -plays 0 -f apng anim.apng");
        Make(raw + "10 -i cut.bgra -c:v libvpx-vp9 -pix_fmt yuva420p -lossless 1 alpha.webm");
        Make(raw + "10 -i half.bgra -c:v libwebp_anim -lossless 1 -loop 0 anim.webp");
        // A palette made from the frames themselves keeps the colours exact.
        Make(raw +
             "10 -i cut.bgra -filter_complex "
             "'split[a][b];[a]palettegen=reserve_transparent=0[p];[b][p]paletteuse=dither=none' "
             "-c:v gif -loop 0 anim.gif");
        Make(raw + "10 -i cut.bgra -c:v libx264 -pix_fmt yuv420p -qp 0 movie.mp4");
        Make(raw + "50 -i half.bgra -c:v apng -plays 0 -f apng fast.apng");
        WriteBytes("empty.webm", {});
        std::vector<uint8_t> garbage(4096);
        uint32_t state = 12345;
        for (uint8_t& byte : garbage) {
            state = state * 1664525u + 1013904223u;
            byte = static_cast<uint8_t>(state >> 24);
        }
        WriteBytes("garbage.webm", garbage);
        // The header of a compressed Flash movie, followed by noise.
        std::vector<uint8_t> swf = {'C', 'W', 'S', 10, 0, 0x10, 0, 0};
        swf.insert(swf.end(), garbage.begin(), garbage.begin() + 512);
        WriteBytes("movie.swf", swf);
        const std::string text = "this is not a movie\n";
        WriteBytes("notes.gif", std::vector<uint8_t>(text.begin(), text.end()));
        // A WebM cut after its headers and first frame or so.
        std::vector<uint8_t> bytes = ReadBytes(Path("alpha.webm"));
        bytes.resize(bytes.size() / 3);
        WriteBytes("truncated.webm", bytes);
    }

  private:
    void WriteRaw(const std::string& name, bool half, int frames) {
        std::vector<uint8_t> bytes;
        for (int i = 0; i < frames; ++i) {
            const Bgr c = kColours[i % kColours.size()];
            for (int y = 0; y < kMovieHeight; ++y) {
                for (int x = 0; x < kMovieWidth; ++x) {
                    bytes.insert(bytes.end(), {c.b, c.g, c.r, AlphaAt(x, y, half)});
                }
            }
        }
        WriteBytes(name, bytes);
    }

    void WriteBytes(const std::string& name, const std::vector<uint8_t>& bytes) {
        ASSERT_TRUE(lumets::test::WriteBytes(Path(name), bytes)) << name;
    }

    void Make(const std::string& arguments) {
        const std::string command = "cd " + Quote(m_dir.Path().string()) +
                                    " && ffmpeg -nostdin -hide_banner -loglevel error -y " +
                                    arguments;
        ASSERT_TRUE(RunCommand(command)) << command;
    }

    ScratchDir m_dir;
};

}  // namespace lumets::test
