// BlendAt of a 1920 x 200 overlay into a 1920 x 1080 24-bit frame: the scalar
// reference, every SIMD table this CPU runs, a plain memcpy of the same
// frame bytes, and pixman's OVER of the same picture (premultiplied first).
// Overlays: text-like (alpha-0 background, opaque strokes, anti-aliased
// edges), one made only of partial alphas, and a denser stroke pattern; and a
// subtitle's plate, whole or as its flat middle's colour.
#include <benchmark/benchmark.h>
#include <pixman.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "lumets_common/pixel_kernels.h"
#include "lumets_common/pixel_ops.h"
#include "subtitle/subtitle_background.h"

namespace lumets {
namespace {

constexpr int32_t kFrameW = 1920;
constexpr int32_t kFrameH = 1080;
constexpr int32_t kOverlayW = 1920;
constexpr int32_t kOverlayH = 200;
constexpr POINT kPos = {0, 440};
constexpr size_t kFrameStride = static_cast<size_t>(kFrameW) * 3;
constexpr size_t kTouchedBytes = static_cast<size_t>(kOverlayW) * kOverlayH * 3;

// Every buffer starts on a 64-byte line: where the allocator happens to put
// a frame otherwise moves these figures by a tenth from run to run.
using Bytes = std::vector<uint8_t, LineAllocator<uint8_t>>;

struct Overlay {
    Bytes pixels;  // 32-bit B, G, R, A
    double transparent = 0;
    double opaque = 0;
};

void Summarise(Overlay& o) {
    size_t zero = 0;
    size_t full = 0;
    for (size_t i = 3; i < o.pixels.size(); i += 4) {
        zero += o.pixels[i] == 0;
        full += o.pixels[i] == 255;
    }
    o.transparent = static_cast<double>(zero) / static_cast<double>(o.pixels.size() / 4);
    o.opaque = static_cast<double>(full) / static_cast<double>(o.pixels.size() / 4);
}

Overlay FromAlphas(const std::vector<uint8_t>& alphas, uint32_t seed) {
    std::mt19937 rng(seed);
    Overlay o;
    o.pixels.resize(alphas.size() * 4);
    for (size_t i = 0; i < alphas.size(); ++i) {
        o.pixels[4 * i + 0] = static_cast<uint8_t>(rng());
        o.pixels[4 * i + 1] = static_cast<uint8_t>(rng());
        o.pixels[4 * i + 2] = static_cast<uint8_t>(rng());
        o.pixels[4 * i + 3] = alphas[i];
    }
    Summarise(o);
    return o;
}

// Four lines of text, 50 rows each: glyphs built from 4-pixel stems, bars and
// bowls between x-height, ascender and descender lines, letter and word
// spacing, and a one-pixel anti-aliased rim around every stroke.
Overlay MakeTextLike() {
    std::mt19937 rng(7);
    std::vector<uint8_t> a(static_cast<size_t>(kOverlayW) * kOverlayH, 0);
    auto fill = [&a](int32_t x0, int32_t x1, int32_t y0, int32_t y1) {
        for (int32_t y = std::max(y0, 0); y < std::min(y1, kOverlayH); ++y) {
            for (int32_t x = std::max(x0, 0); x < std::min(x1, kOverlayW); ++x) {
                a[static_cast<size_t>(y) * kOverlayW + x] = 255;
            }
        }
    };
    constexpr int32_t kStroke = 4;
    for (int32_t line = 0; line < kOverlayH / 50; ++line) {
        // Rows count upwards in memory; the line's base is its lowest row.
        const int32_t base = line * 50;
        const int32_t descender = base + 4;
        const int32_t baseline = base + 12;
        const int32_t xHeight = base + 32;
        const int32_t ascender = base + 44;
        int32_t x = 24;
        int32_t letters = 0;
        while (x < kOverlayW - 40) {
            const int32_t w = 14 + static_cast<int32_t>(rng() % 8);
            switch (rng() % 6) {
                case 0:  // o
                    fill(x, x + kStroke, baseline, xHeight);
                    fill(x + w - kStroke, x + w, baseline, xHeight);
                    fill(x, x + w, baseline, baseline + kStroke);
                    fill(x, x + w, xHeight - kStroke, xHeight);
                    break;
                case 1:  // n
                    fill(x, x + kStroke, baseline, xHeight);
                    fill(x + w - kStroke, x + w, baseline, xHeight - 2);
                    fill(x, x + w - 2, xHeight - kStroke, xHeight);
                    break;
                case 2:  // l
                    fill(x, x + kStroke, baseline, ascender);
                    x -= w - kStroke - 2;
                    break;
                case 3:  // e
                    fill(x, x + kStroke, baseline, xHeight);
                    fill(x, x + w, baseline, baseline + kStroke);
                    fill(x, x + w, xHeight - kStroke, xHeight);
                    fill(x, x + w, (baseline + xHeight) / 2, (baseline + xHeight) / 2 + kStroke);
                    break;
                case 4:  // p
                    fill(x, x + kStroke, descender, xHeight);
                    fill(x + w - kStroke, x + w, baseline + 2, xHeight - 2);
                    fill(x, x + w - 2, baseline, baseline + kStroke);
                    fill(x, x + w - 2, xHeight - kStroke, xHeight);
                    break;
                default:  // i
                    fill(x, x + kStroke, baseline, xHeight);
                    fill(x, x + kStroke, xHeight + 4, xHeight + 8);
                    x -= w - kStroke - 2;
                    break;
            }
            x += w + 3;
            if (++letters % 6 == 0) {
                x += 12;  // word space
            }
        }
    }
    // Anti-aliased rim: background pixels touching a stroke.
    std::vector<uint8_t> rim = a;
    for (int32_t y = 0; y < kOverlayH; ++y) {
        for (int32_t x = 0; x < kOverlayW; ++x) {
            const size_t i = static_cast<size_t>(y) * kOverlayW + x;
            if (a[i] != 0) {
                continue;
            }
            const bool touches = (x > 0 && a[i - 1] == 255) ||
                                 (x + 1 < kOverlayW && a[i + 1] == 255) ||
                                 (y > 0 && a[i - kOverlayW] == 255) ||
                                 (y + 1 < kOverlayH && a[i + kOverlayW] == 255);
            if (touches) {
                rim[i] = static_cast<uint8_t>(1 + rng() % 254);
            }
        }
    }
    return FromAlphas(rim, 8);
}

// Denser than text: in every glyph row, runs of 2 to 10 transparent pixels
// between 2- to 5-pixel stems with a partial pixel either side, so almost no
// 16-pixel block is uniform. The SIMD worst case among the text-like ones.
Overlay MakeDenseStrokes() {
    std::mt19937 rng(9);
    std::vector<uint8_t> a(static_cast<size_t>(kOverlayW) * kOverlayH, 0);
    std::vector<uint8_t> row(kOverlayW, 0);
    for (int32_t y = 0; y < kOverlayH; ++y) {
        const bool glyphRow = y % 50 >= 10 && y % 50 < 40;
        if (!glyphRow) {
            std::fill(row.begin(), row.end(), 0);
        } else if (y % 50 == 10 || rng() % 4 == 0) {
            int32_t x = 0;
            while (x < kOverlayW) {
                const int32_t gap = 2 + static_cast<int32_t>(rng() % 9);
                const int32_t stem = 2 + static_cast<int32_t>(rng() % 4);
                for (int32_t i = 0; i < gap && x < kOverlayW; ++i) {
                    row[x++] = 0;
                }
                if (x < kOverlayW) {
                    row[x++] = static_cast<uint8_t>(1 + rng() % 254);
                }
                for (int32_t i = 0; i < stem && x < kOverlayW; ++i) {
                    row[x++] = 255;
                }
                if (x < kOverlayW) {
                    row[x++] = static_cast<uint8_t>(1 + rng() % 254);
                }
            }
        }
        std::copy(row.begin(), row.end(), a.begin() + static_cast<ptrdiff_t>(y) * kOverlayW);
    }
    return FromAlphas(a, 10);
}

Overlay MakePartialOnly() {
    std::mt19937 rng(11);
    Overlay o;
    o.pixels.resize(static_cast<size_t>(kOverlayW) * kOverlayH * 4);
    for (size_t i = 0; i < o.pixels.size(); ++i) {
        o.pixels[i] =
            (i & 3) == 3 ? static_cast<uint8_t>(1 + rng() % 254) : static_cast<uint8_t>(rng());
    }
    return o;
}

Bytes MakeFrame() {
    Bytes frame(kFrameStride * kFrameH);
    std::mt19937 rng(3);
    for (uint8_t& b : frame) {
        b = static_cast<uint8_t>(rng());
    }
    return frame;
}

void SetCounters(benchmark::State& state, const Overlay& o) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kTouchedBytes));
    state.counters["alpha0"] = o.transparent;
    state.counters["alpha255"] = o.opaque;
}

// The blend straight from the picture, or through its runs (found once, as
// a steady picture's are; how long that took is a counter).
void BlendWith(benchmark::State& state, const Overlay& o, const PixelKernels& kernels,
               bool throughRuns) {
    Bytes frame = MakeFrame();
    const ConstPictureView picture = PackedPicture(o.pixels.data(), kOverlayW, kOverlayH, 32);
    const auto start = std::chrono::steady_clock::now();
    const PictureRuns runs = throughRuns ? FindRuns(picture) : PictureRuns{};
    const std::chrono::duration<double, std::micro> finding =
        std::chrono::steady_clock::now() - start;
    for (auto _ : state) {
        const PictureView view = PackedPicture(frame.data(), kFrameW, kFrameH, 24);
        if (throughRuns) {
            BlendRunsAtWith(kernels, view, kPos, picture, runs);
        } else {
            BlendAtWith(kernels, view, kPos, picture);
        }
        benchmark::ClobberMemory();
    }
    SetCounters(state, o);
    if (throughRuns) {
        state.counters["find_runs_us"] = finding.count();
        state.counters["packed"] =
            static_cast<double>(runs.pixels.size()) / (static_cast<double>(kOverlayW) * kOverlayH);
    }
}

// The same blend into a host's top-down frame of another layout.
void BlendIntoLayout(benchmark::State& state, const Overlay& o, const PixelKernels& kernels,
                     PixelLayout layout) {
    const int32_t bits = layout == PixelLayout::Rgb ? 24 : 32;
    Bytes frame(RowStride(kFrameW, bits) * kFrameH, 0x40);
    PictureView view = PackedPicture(frame.data(), kFrameW, kFrameH, bits);
    view.layout = layout;
    view.topDown = true;
    for (auto _ : state) {
        BlendAtWith(kernels, view, kPos, PackedPicture(o.pixels.data(), kOverlayW, kOverlayH, 32));
        benchmark::ClobberMemory();
    }
    SetCounters(state, o);
}

void Memcpy(benchmark::State& state) {
    Bytes frame = MakeFrame();
    const Bytes from(kTouchedBytes, 0x5A);
    uint8_t* to = frame.data() + kFrameStride * static_cast<size_t>(kPos.y);
    for (auto _ : state) {
        std::memcpy(to, from.data(), kTouchedBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kTouchedBytes));
}

// pixman composites premultiplied colour; the conversion is set-up, not timed.
// Its rows run top-down, so the frame is addressed from its first row.
void Pixman(benchmark::State& state, const Overlay& o) {
    std::vector<uint32_t> premultiplied(static_cast<size_t>(kOverlayW) * kOverlayH);
    for (size_t i = 0; i < premultiplied.size(); ++i) {
        const uint8_t* p = &o.pixels[i * 4];
        const uint32_t a = p[3];
        auto mul = [a](uint32_t c) { return (c * a + 127) / 255; };
        premultiplied[i] = a << 24 | mul(p[2]) << 16 | mul(p[1]) << 8 | mul(p[0]);
    }
    Bytes frame = MakeFrame();
    pixman_image_t* src = pixman_image_create_bits(PIXMAN_a8r8g8b8, kOverlayW, kOverlayH,
                                                   premultiplied.data(), kOverlayW * 4);
    pixman_image_t* dst = pixman_image_create_bits(
        PIXMAN_r8g8b8, kFrameW, kFrameH, reinterpret_cast<uint32_t*>(frame.data()), kFrameW * 3);
    for (auto _ : state) {
        pixman_image_composite32(PIXMAN_OP_OVER, src, nullptr, dst, 0, 0, 0, 0, kPos.x, kPos.y,
                                 kOverlayW, kOverlayH);
        benchmark::ClobberMemory();
    }
    pixman_image_unref(src);
    pixman_image_unref(dst);
    SetCounters(state, o);
}

// A subtitle's plate under a 1900-pixel line (1952 x 53 pixels, 60 %
// opacity) blended into the frame: its whole picture, as before, and as
// what it is (the flat middle as one colour), with each table.
void Plate(benchmark::State& state, const PixelKernels& kernels, bool flat) {
    Bytes frame = MakeFrame();
    CSubtitleBackground plate;
    POINT shift{};
    plate.SetColourAndOpacity(0x203040, 0.6f);
    plate.BuildBackground(1900, 44, shift);
    const ConstPictureView picture = plate.GetScaledBackground(1.0f);
    const PictureRuns runs = FindRuns(picture, 0x99203040);
    PictureView view = PackedPicture(frame.data(), kFrameW, kFrameH, 24);
    for (auto _ : state) {
        if (flat) {
            BlendRunsAtWith(kernels, view, kPos, picture, runs);
        } else {
            BlendAtWith(kernels, view, kPos, picture);
        }
        benchmark::ClobberMemory();
    }
    state.counters["ns_per_pixel"] = benchmark::Counter(
        static_cast<double>(picture.width) * picture.height,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void Register() {
    for (const PixelKernels* k : {&ScalarKernels(), Avx512Kernels(), Avx2Kernels()}) {
        if (k != nullptr) {
            for (const bool flat : {false, true}) {
                benchmark::RegisterBenchmark(
                    (std::string("Plate/") + (flat ? "flat/" : "picture/") + k->name).c_str(),
                    Plate, *k, flat);
            }
        }
    }
    static const Overlay textLike = MakeTextLike();
    static const Overlay partial = MakePartialOnly();
    static const Overlay dense = MakeDenseStrokes();
    const struct {
        const char* name;
        const Overlay* overlay;
    } overlays[] = {{"text", &textLike}, {"partial", &partial}, {"dense", &dense}};
    for (const auto& o : overlays) {
        const std::string base = std::string("BlendAt/") + o.name + "/";
        benchmark::RegisterBenchmark((base + "scalar").c_str(), BlendWith, *o.overlay,
                                     ScalarKernels(), false);
        for (const PixelKernels* k : {Avx512Kernels(), Avx2Kernels(), Sse41Kernels()}) {
            if (k != nullptr) {
                benchmark::RegisterBenchmark((base + k->name).c_str(), BlendWith, *o.overlay, *k,
                                             false);
                benchmark::RegisterBenchmark(
                    (std::string("BlendRuns/") + o.name + "/" + k->name).c_str(), BlendWith,
                    *o.overlay, *k, true);
            }
        }
        benchmark::RegisterBenchmark((base + "pixman").c_str(), Pixman, *o.overlay);
    }
    for (const auto& [name, layout] :
         {std::pair{"rgb24", PixelLayout::Rgb}, std::pair{"bgrx", PixelLayout::Bgrx},
          std::pair{"rgbx", PixelLayout::Rgbx}}) {
        for (const PixelKernels* k : {&ScalarKernels(), Avx2Kernels()}) {
            if (k != nullptr) {
                benchmark::RegisterBenchmark(
                    (std::string("BlendAt/text/") + name + "/" + k->name).c_str(), BlendIntoLayout,
                    textLike, *k, layout);
            }
        }
    }
    benchmark::RegisterBenchmark("Memcpy/1152000", Memcpy);
}

}  // namespace
}  // namespace lumets

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    lumets::Register();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
