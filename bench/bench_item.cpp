// The subtitle item's CPU frame: a movie from the host library's media
// player, the plate and a scrolling outlined text composited into a full HD
// frame, per frame after warm-up, with the heap allocations the render thread
// makes per frame.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_fixtures.h"
#include "lumets_common/pixel_ops.h"
#include "subtitle/lumet.h"

namespace {

struct Scene {
    lumets::bench::ScratchDir dir;
    SwfPart swf = lumets::bench::PatternMovie(dir, "640x360");
    std::unique_ptr<TextPart> text =
        lumets::bench::OutlinedText(u"Live subtitle 直播字幕 scrolling across the frame", 32);
    BackgroundPart plate{0x804020, 80, 0, {}};
    lumets::CLumet item;

    Scene() {
        swf.rcClip = RECT{0, 0, 1280, 720};
        swf.x = 100;
        swf.y = 80;
        text->rcClip = RECT{0, 600, 1280, 700};
        text->x = 200;
        text->y = 620;
        text->nDirection = 2;
        text->nSpeed = 120;
        text->bWrap = 1;
        ItemDescription desc{&swf, text.get(), &plate, 0, {}};
        if (!item.Start(&desc, false, false)) {
            std::abort();
        }
        item.SignalPlay();
    }
    ~Scene() { item.Stop(); }
};

void BM_CompositeToFrame(benchmark::State& state) {
    static Scene scene;
    const float scale = static_cast<float>(state.range(0)) / 10.0f;
    std::vector<uint8_t> frame(static_cast<size_t>(lumets::RowStride(1920, 24)) * 1080, 40);
    for (int i = 0; i < 30; ++i) {  // warm-up: buffers and caches grow
        scene.item.CompositeToFrame(lumets::PackedFrame24(frame.data(), 1920, 1080), 0, 0, scale);
    }
    lumets::bench::StartCounting();
    for (auto _ : state) {
        scene.item.CompositeToFrame(lumets::PackedFrame24(frame.data(), 1920, 1080), 0, 0, scale);
        benchmark::DoNotOptimize(frame.data());
    }
    state.counters["allocations_per_frame"] = static_cast<double>(lumets::bench::StopCounting()) /
                                              static_cast<double>(state.iterations());
}
BENCHMARK(BM_CompositeToFrame)->Arg(10)->Arg(15)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
