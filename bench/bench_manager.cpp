// The subtitle manager's frame: 20 playing subtitles (a plate and a
// scrolling outlined text each, half of them with a movie) drawn into a full
// HD frame in memory at scales 1.0 and 1.5, and onto a GL target (Mesa's
// software rasteriser where there is no GPU), per frame after warm-up, with
// the heap allocations of the drawing thread per frame.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "image/pixel_ops.h"
#include "lumets/host/headless_gl.h"
#include "manager/lumet_manager.h"

namespace {

struct Scene {
    std::string dir;
    SwfPart swf{};
    std::unique_ptr<TextPart> text = std::make_unique<TextPart>();
    lumets::CLumetManager manager;

    Scene() {
        char pattern[] = "/tmp/lumets-bench-XXXXXX";
        dir = mkdtemp(pattern);
        const std::string movie = dir + "/movie.apng";
        const std::string command =
            "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=s=320x180:d=2:r=30 -plays 0 -f "
            "apng " +
            movie;
        if (std::system(command.c_str()) != 0) {
            std::abort();
        }
        const std::u16string path(movie.begin(), movie.end());
        std::copy(path.begin(), path.end(), swf.szPath);
        swf.rcClip = RECT{0, 0, 400, 240};
        std::memset(static_cast<void*>(text.get()), 0, sizeof(TextPart));
        text->style = TextStyle();
        text->style.fontSize = 24;
        text->style.fillColor1 = text->style.fillColor2 = 0xFFFFFF;
        text->style.outline = 1;
        text->style.outlineWidth = 2;
        const char16_t line[] = u"Live subtitle 直播字幕 scrolls";
        std::memcpy(text->text, line, sizeof line);
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
    ~Scene() {
        manager.RemoveAllSubtitles();
        std::system(("rm -rf " + dir).c_str());
    }
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
