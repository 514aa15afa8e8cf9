// Image loading.
//
// Loads: the 40 x 36 mask resource, and 1920 x 1080 pictures (ffmpeg's
// testsrc2 pattern) as RGBA PNG, RGB PNG and 4:2:0 JPEG, made with ffmpeg at
// start-up. The target buffer is reused, as a banner reloading its image
// would. The plate drawn at two scales is in bench_scale.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench_fixtures.h"
#include "image/image_loader.h"
#include "lumets_platform/utf16.h"

namespace lumets {
namespace {

std::string MakePicture(const bench::ScratchDir& dir, const std::string& name,
                        const std::string& args) {
    return dir.Ffmpeg(name, "-f lavfi -i testsrc2=size=1920x1080:rate=1 -frames:v 1 " + args);
}

struct Buffer {
    PixelBuffer buffer;
};

void LoadFileBenchmark(benchmark::State& state, const std::string& path) {
    const std::u16string path16 = platform::Utf8ToU16(path);
    Buffer target;
    for (auto _ : state) {
        LoadImageFile(target.buffer, path16.c_str());
        benchmark::DoNotOptimize(target.buffer.Data());
    }
    if (target.buffer.width != 1920 || target.buffer.height != 1080) {
        state.SkipWithError("picture did not load");
    }
    state.counters["bits"] = target.buffer.bitsPerPixel;
    state.SetItemsProcessed(state.iterations() * 1920 * 1080);
}

void BM_LoadMaskResource(benchmark::State& state) {
    Buffer target;
    for (auto _ : state) {
        LoadImageResource(target.buffer, u"Lumets.dll", 101, u"PNG");
        benchmark::DoNotOptimize(target.buffer.Data());
    }
    if (target.buffer.width != 40) {
        state.SkipWithError("mask did not load");
    }
}
BENCHMARK(BM_LoadMaskResource)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace lumets

int main(int argc, char** argv) {
    using namespace lumets;
    const bench::ScratchDir dir;
    const std::string rgbaPng = MakePicture(dir, "rgba.png", "-pix_fmt rgba");
    const std::string rgbPng = MakePicture(dir, "rgb.png", "-pix_fmt rgb24");
    const std::string jpeg = MakePicture(dir, "yuv420.jpg", "-pix_fmt yuvj420p -q:v 3");

    benchmark::RegisterBenchmark("BM_LoadPng1080pRgba", LoadFileBenchmark, rgbaPng)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_LoadPng1080pRgb", LoadFileBenchmark, rgbPng)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_LoadJpeg1080p", LoadFileBenchmark, jpeg)
        ->Unit(benchmark::kMillisecond);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
