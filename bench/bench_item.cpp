// The subtitle item's CPU frame: a movie from the host library's media
// player, the plate and a scrolling outlined text composited into a full HD
// frame, per frame after warm-up, with the heap allocations the render thread
// makes per frame.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "image/pixel_ops.h"
#include "subtitle/lumet.h"

namespace {

struct Scene {
    std::string dir;
    SwfPart swf{};
    std::unique_ptr<TextPart> text = std::make_unique<TextPart>();
    BackgroundPart plate{0x804020, 80, 0, {}};
    lumets::CLumet item;

    Scene() {
        char pattern[] = "/tmp/lumets-bench-XXXXXX";
        dir = mkdtemp(pattern);
        const std::string movie = dir + "/movie.apng";
        const std::string command =
            "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=s=640x360:d=2:r=30 -plays 0 "
            "-f apng " +
            movie;
        if (std::system(command.c_str()) != 0) {
            std::abort();
        }
        const std::u16string path(movie.begin(), movie.end());
        std::copy(path.begin(), path.end(), swf.szPath);
        swf.rcClip = RECT{0, 0, 1280, 720};
        swf.x = 100;
        swf.y = 80;
        std::memset(static_cast<void*>(text.get()), 0, sizeof(TextPart));
        text->style = TextStyle();
        text->style.fontSize = 32;
        text->style.fillColor1 = text->style.fillColor2 = 0xFFFFFF;
        text->style.outline = 1;
        text->style.outlineWidth = 2;
        const char16_t line[] = u"Live subtitle 直播字幕 scrolling across the frame";
        std::memcpy(text->text, line, sizeof line);
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
    ~Scene() {
        item.Stop();
        std::system(("rm -rf " + dir).c_str());
    }
};

void BM_CompositeToFrame(benchmark::State& state) {
    static Scene scene;
    const float scale = static_cast<float>(state.range(0)) / 10.0f;
    std::vector<uint8_t> frame(static_cast<size_t>(lumets::RowStride(1920, 24)) * 1080, 40);
    for (int i = 0; i < 30; ++i) {  // warm-up: buffers and caches grow
        scene.item.CompositeToFrame(frame.data(), 1920, 1080, 0, 0, scale);
    }
    lumets::bench::StartCounting();
    for (auto _ : state) {
        scene.item.CompositeToFrame(frame.data(), 1920, 1080, 0, 0, scale);
        benchmark::DoNotOptimize(frame.data());
    }
    state.counters["allocations_per_frame"] = static_cast<double>(lumets::bench::StopCounting()) /
                                              static_cast<double>(state.iterations());
}
BENCHMARK(BM_CompositeToFrame)->Arg(10)->Arg(15)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
