// The subtitle manager's frame: 20 playing subtitles (a plate and a
// scrolling outlined text each, half of them with a movie) drawn into a full
// HD frame in memory at scales 1.0 and 1.5, and onto a GL target (Mesa's
// software rasteriser where there is no GPU), per frame after warm-up, with
// the heap allocations of the drawing thread per frame.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_fixtures.h"
#include "lumets/host/headless_gl.h"
#include "lumets_common/pixel_ops.h"
#include "manager/lumet_manager.h"

namespace {

struct Scene {
    lumets::bench::ScratchDir dir;
    SwfPart swf = lumets::bench::PatternMovie(dir, "320x180");
    std::unique_ptr<TextPart> text =
        lumets::bench::OutlinedText(u"Live subtitle 直播字幕 scrolls", 24);
    lumets::CLumetManager manager;

    Scene() {
        swf.rcClip = RECT{0, 0, 400, 240};
        text->rcClip = RECT{0, 190, 400, 240};
        text->y = 200;
        text->nDirection = 2;
        text->nSpeed = 90;
        text->bWrap = 1;
        BackgroundPart plate{0x804020, 70, 0, {}};
        for (int i = 0; i < 20; ++i) {
            text->x = 40 * (i % 5);
            ItemDescription item{i % 2 == 0 ? &swf : nullptr, text.get(), &plate, 0, {}};
            const std::u16string id = u"subtitle " + std::u16string(1, u'A' + i);
            manager.AddSubtitle(id.c_str(), u"bench", &item, 1, (i % 4) * 420, (i / 4) * 200, true,
                                0);
        }
    }
    ~Scene() { manager.RemoveAllSubtitles(); }
};

Scene& TheScene() {
    static Scene scene;
    return scene;
}

void BM_DrawToBuffer(benchmark::State& state) {
    Scene& scene = TheScene();
    const float scale = static_cast<float>(state.range(0)) / 10.0f;
    std::vector<uint8_t> frame(static_cast<size_t>(lumets::RowStride(1920, 24)) * 1080, 40);
    for (int i = 0; i < 30; ++i) {
        scene.manager.DrawToBuffer(frame.data(), 1920, 1080, scale);
    }
    lumets::bench::StartCounting();
    for (auto _ : state) {
        scene.manager.DrawToBuffer(frame.data(), 1920, 1080, scale);
        benchmark::DoNotOptimize(frame.data());
    }
    state.counters["allocations_per_frame"] = static_cast<double>(lumets::bench::StopCounting()) /
                                              static_cast<double>(state.iterations());
}
BENCHMARK(BM_DrawToBuffer)->Arg(10)->Arg(15)->Unit(benchmark::kMicrosecond);

void BM_DrawToTarget(benchmark::State& state) {
    Scene& scene = TheScene();
    lumets::host::CHeadlessGl gl;
    if (!gl.OpenDisplay() || !gl.CreateContext() || !gl.CreateFramebuffer(1920, 1080)) {
        state.SkipWithError("no headless OpenGL");
        return;
    }
    for (int i = 0; i < 30; ++i) {
        scene.manager.DrawToTarget(1920, 1080, 1.0f);
    }
    lumets::bench::StartCounting();
    for (auto _ : state) {
        scene.manager.DrawToTarget(1920, 1080, 1.0f);
        gl.ReadPixels();  // waits for the frame
    }
    state.counters["allocations_per_frame"] = static_cast<double>(lumets::bench::StopCounting()) /
                                              static_cast<double>(state.iterations());
    scene.manager.ReleaseGpuResources();
}
BENCHMARK(BM_DrawToTarget)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
