// The three banners composed into a full HD frame per frame, after warm-up,
// with the heap allocations of the drawing thread per frame. Images are made
// with ffmpeg at start-up: PNGs with alpha.
//
//   bench_banners --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_fixtures.h"
#include "lumets/weird_subtitle_manager.h"
#include "lumets_common/pixel_ops.h"

namespace {

constexpr int kFrameW = 1920;
constexpr int kFrameH = 1080;

std::u16string MakeImage(const std::string& name, const std::string& source) {
    static const lumets::bench::ScratchDir dir;
    const std::string path =
        dir.Ffmpeg(name, "-f lavfi -i '" + source + "' -frames:v 1 -pix_fmt rgba");
    return std::u16string(path.begin(), path.end());
}

struct Banners {
    IWeirdSubtitleManager* manager = CreateWeirdSubtitleManager();
    Banners() {
        manager->SetTavrinTexts(u"主播", u"嘉宾", u"连麦中", u"PK 3:2", u"主播名字", u"嘉宾名字");
        manager->LoadTavrinImages(MakeImage("image1.png", "color=c=0x3060C0@0.8:s=200x40").c_str(),
                                  MakeImage("image2.png", "color=c=0xC08030@0.9:s=300x48").c_str());
        manager->SetQuellinTexts(u"第 3 关", u"得分 12800", 0);
        manager->LoadQuellinPlate(MakeImage("plate.png", "color=c=0x205020@0.85:s=240x96").c_str());
        manager->SetOmbrelText(u"Ombrel 冠军 MVP", 20);
        manager->LoadOmbrelImages(MakeImage("caps.png", "testsrc2=s=40x36").c_str(),
                                  MakeImage("middle.png", "color=c=0x802040:s=800x36").c_str());
    }
    ~Banners() { DeleteWeirdSubtitleManager(manager); }
};

Banners& TheBanners() {
    static Banners banners;
    return banners;
}

template <typename Draw>
void Run(benchmark::State& state, Draw draw) {
    std::vector<uint8_t> frame(static_cast<size_t>(lumets::RowStride(kFrameW, 24)) * kFrameH, 40);
    draw(frame.data());  // warm-up: buffers, scaled copies
    lumets::bench::StartCounting();
    for (auto _ : state) {
        draw(frame.data());
        benchmark::DoNotOptimize(frame.data());
    }
    state.counters["allocs_per_frame"] = static_cast<double>(lumets::bench::StopCounting()) /
                                         static_cast<double>(state.iterations());
}

void BM_ComposeTavrin(benchmark::State& state) {
    const POINT origin{100, 900};
    Run(state, [&](uint8_t* frame) {
        TheBanners().manager->ComposeTavrin(frame, kFrameW, kFrameH, &origin);
    });
}
BENCHMARK(BM_ComposeTavrin)->Unit(benchmark::kMicrosecond);

void BM_ComposeQuellin(benchmark::State& state) {
    const POINT origin{1500, 800};
    Run(state, [&](uint8_t* frame) {
        TheBanners().manager->ComposeQuellin(frame, kFrameW, kFrameH, &origin);
    });
}
BENCHMARK(BM_ComposeQuellin)->Unit(benchmark::kMicrosecond);

void BM_ComposeOmbrel(benchmark::State& state) {
    const float scale = static_cast<float>(state.range(0)) / 10.0f;
    const RECT rect{200, 100, 1000, 300};  // inside the frame at both scales
    Run(state, [&](uint8_t* frame) {
        TheBanners().manager->ComposeOmbrel(frame, kFrameW, kFrameH, &rect, scale);
    });
}
BENCHMARK(BM_ComposeOmbrel)->Arg(10)->Arg(15)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
