// Image loading and the subtitle plate.
//
// Loads: the 40 x 36 mask resource, and 1920 x 1080 pictures (ffmpeg's
// testsrc2 pattern) as RGBA PNG, RGB PNG and 4:2:0 JPEG, made with ffmpeg at
// start-up. The target buffer is reused, as a banner reloading its image
// would.
//
// Plate: DrawOnFrame of a steady plate (text 600 x 40, plate 652 x 47) into
// a 1920 x 1080 24-bit frame at scale 1 and 1.5; after the first frame
// nothing is rebuilt or rescaled (the counters show it). For comparison, the same draw with the
// colour changing every frame, which rebuilds and rescales each time.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "image/image_loader.h"
#include "image/pixel_ops.h"
#include "lumets_platform/utf16.h"
#include "subtitle/subtitle_background.h"

namespace lumets {
namespace {

constexpr int32_t kFrameW = 1920;
constexpr int32_t kFrameH = 1080;

std::string g_dir;

std::string MakePicture(const std::string& name, const std::string& args) {
    const std::string path = g_dir + "/" + name;
    const std::string command =
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=1 -frames:v 1 " +
        args + " '" + path + "'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "could not make %s\n", path.c_str());
    }
    return path;
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

void BM_DrawPlate(benchmark::State& state, float scale, bool changeEveryFrame) {
    std::vector<uint8_t> frame(size_t{RowStride(kFrameW, 24)} * kFrameH, 90);
    CSubtitleBackground plate;
    const RECT text{400, 500, 1000, 540};  // inside the frame at both scales
    uint32_t colour = 0x3366CC;
    for (auto _ : state) {
        if (changeEveryFrame) {
            colour ^= 1;
        }
        plate.DrawOnFrame(PackedPicture(frame.data(), kFrameW, kFrameH, 24), &text, 40, colour,
                          0.7f, scale);
        benchmark::ClobberMemory();
    }
    state.counters["rebuilds"] = plate.BuildCount();
    state.counters["rescales"] = plate.ScaleCount();
}

}  // namespace
}  // namespace lumets

int main(int argc, char** argv) {
    using namespace lumets;
    std::string pattern = (std::filesystem::temp_directory_path() / "lumets-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        return 1;
    }
    g_dir = pattern;
    const std::string rgbaPng = MakePicture("rgba.png", "-pix_fmt rgba");
    const std::string rgbPng = MakePicture("rgb.png", "-pix_fmt rgb24");
    const std::string jpeg = MakePicture("yuv420.jpg", "-pix_fmt yuvj420p -q:v 3");

    benchmark::RegisterBenchmark("BM_LoadPng1080pRgba", LoadFileBenchmark, rgbaPng)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_LoadPng1080pRgb", LoadFileBenchmark, rgbPng)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_LoadJpeg1080p", LoadFileBenchmark, jpeg)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_DrawPlateSteady/scale:1.0", BM_DrawPlate, 1.0f, false)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_DrawPlateSteady/scale:1.5", BM_DrawPlate, 1.5f, false)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_DrawPlateColourChanging/scale:1.0", BM_DrawPlate, 1.0f, true)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("BM_DrawPlateColourChanging/scale:1.5", BM_DrawPlate, 1.5f, true)
        ->Unit(benchmark::kMicrosecond);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(g_dir, ignored);
    return 0;
}
